#pragma once

#include <nfslib/exception.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace nfslib::hosts {

// The longest name of an entry, in bytes, as on every common file system.
constexpr std::size_t kLongestName = 255;

// Whether `name` can name an entry of a directory: one path component, and not the directory itself
// or its parent. Nothing else may get as far as the tree.
inline bool isEntryName(std::string_view name) {
  return !name.empty() && name.size() <= kLongestName && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

// Throws unless `isEntryName(name)`.
inline void requireEntryName(const std::string& name) {
  if (isEntryName(name)) return;
  if (name.size() > kLongestName) {
    throw SystemNfsException(ENAMETOOLONG, "The name [" + name + "] is longer than " +
                                               std::to_string(kLongestName) + " bytes.");
  }
  throw SystemNfsException(
      EINVAL, "[" + name +
                  "] cannot name an entry: a name is not empty, not \".\" or \"..\", and has no "
                  "\"/\" and no NUL byte.");
}

// The longest text of a symbolic link, in bytes.
constexpr std::size_t kLongestTarget = 4095;

// Throws unless `target` can be the text of a symbolic link.
inline void requireLinkTarget(const std::string& target) {
  if (target.empty())
    throw SystemNfsException(EINVAL, "The text of a symbolic link cannot be empty.");
  if (target.size() > kLongestTarget) {
    throw SystemNfsException(ENAMETOOLONG, "The text of a symbolic link cannot be longer than " +
                                               std::to_string(kLongestTarget) + " bytes.");
  }
  if (target.find('\0') != std::string::npos) {
    throw SystemNfsException(EINVAL, "The text of a symbolic link cannot hold a NUL byte.");
  }
}

}  // namespace nfslib::hosts
