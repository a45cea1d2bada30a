#include "common/status.h"

#include <magic_enum/magic_enum.hpp>

namespace nfslib::nfs {

// magic_enum looks at values up to 127 only, which are just the codes that have a printable name.
static_assert(MAGIC_ENUM_RANGE_MAX < static_cast<int>(OperationResult::BadHandle));

std::string_view nameOf(OperationResult result) { return magic_enum::enum_name(result); }

const char* NfsOperationError::what() const noexcept {
  const std::string_view name = nameOf(m_result);  // static storage, NUL-terminated by magic_enum
  return name.empty() ? "" : name.data();
}

}  // namespace nfslib::nfs
