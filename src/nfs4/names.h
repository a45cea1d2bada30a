#pragma once

#include "common/status.h"
#include "common/xdr_records.h"
#include "nfs4/call.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace nfslib::nfs4 {

// Whether the name leads one level down and nowhere else: no name leads out of an export.
inline bool isOneComponent(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

// NFS4_OPAQUE_LIMIT, RFC 7530 section 2.1: the longest name that an owner gives itself.
constexpr std::size_t kLongestOwner = StateOwner::kLongestName;  // bytes

inline nfs::OperationResult statusIfTooLong(const Call& call, const std::string& name) {
  return name.size() > call.service.profile().longestName ? nfs::OperationResult::FileNameIsTooLong
                                                          : nfs::OperationResult::OK;
}

}  // namespace nfslib::nfs4
