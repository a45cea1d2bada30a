#pragma once

#include <nfslib/metadata.h>

#include <cstdint>

namespace nfslib {

class NfsService;

namespace nfs4 {

// The directory above all exports (RFC 7530 section 7.3), which no host has.

constexpr std::uint64_t kPseudoRootFileId = 1;
// The file id of the place where the root of an export hangs: what was there if nothing hung there
// (mounted_on_fileid).
constexpr std::uint64_t placeInPseudoRoot(std::uint32_t exportNumber) {
  return kPseudoRootFileId + exportNumber;
}

MetaData pseudoRootMetaData(const NfsService& service);

}  // namespace nfs4

}  // namespace nfslib
