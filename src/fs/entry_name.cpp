#include "fs/entry_name.h"

#include "common/log.h"

#include <stdexcept>
#include <string_view>

namespace nfslib {

void requireEntryName(const std::string& name) {
  constexpr std::string_view kForbidden("/\0", 2);
  if (!name.empty() && name != "." && name != ".." &&
      name.find_first_of(kForbidden) == std::string::npos) {
    return;
  }
  throw std::runtime_error(message("[%1] cannot name an entry.", name));
}

}  // namespace nfslib
