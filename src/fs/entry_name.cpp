#include "fs/entry_name.h"

#include <nfslib/exception.h>

#include "common/log.h"

#include <cerrno>
#include <string_view>

namespace nfslib {

void requireEntryName(const std::string& name) {
  constexpr std::string_view kForbidden("/\0", 2);
  if (!name.empty() && name != "." && name != ".." &&
      name.find_first_of(kForbidden) == std::string::npos) {
    return;
  }
  throw SystemNfsException(EINVAL, message("[%1] cannot name an entry.", name));
}

}  // namespace nfslib
