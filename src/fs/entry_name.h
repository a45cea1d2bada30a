#pragma once

#include <string>
#include <string_view>

namespace nfslib {

// Throws std::runtime_error unless `name` can name an entry of a directory. A client may send
// anything; an operation that changes the tree passes on one path component and nothing else: no
// empty name, no "." or "..", no "/" and no NUL byte.
void requireEntryName(const std::string& name);

// Whether it is "." or "..", which some hosts list.
inline bool isSelfOrParent(std::string_view name) { return name == "." || name == ".."; }

}  // namespace nfslib
