#pragma once

#include <nfslib/export.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace nfslib {

/// A canonical absolute path inside one exported tree, or the path of an export itself.
///
/// "/" is the root; every other path is "/" and its components joined by single "/", none of them
/// empty, "." or "..". The form is made at construction, so equal objects have equal bytes. A
/// component is any non-empty byte string without "/".
class NFSLIB_EXPORT NfsPath {
 public:
  /// Makes the canonical form of `text`: relative text starts at the root, empty and "." components
  /// vanish, ".." goes up one level and never above the root.
  explicit NfsPath(const std::string& text);
  /// Joins `nodes`, which are taken as they are: each must be a clean component.
  explicit NfsPath(const std::vector<std::string_view>& nodes);

  /// The canonical text.
  const std::string& str() const { return m_path; }
  /// The same, as a copy.
  explicit operator std::string() const { return m_path; }
  /// Whether this is "/".
  bool isRootPath() const { return m_path.size() == 1; }
  /// Whether this is `top` or a path below it.
  bool isAtOrBelow(const NfsPath& top) const;
  /// The components in order, as views into this path (valid until it is changed or destroyed).
  std::vector<std::string_view> nodes() const;
  /// The path without its last component; the root for the root.
  NfsPath getParentPath() const;
  /// The last component; empty for the root.
  std::string getFileName() const;

  /// Appends one "/" unless `s` ends with one; an empty `s` becomes "/".
  static std::string addEndingDelimIfNeeded(std::string&& s);
  /// Removes one leading "/" if there is one.
  static std::string remoteFrontDelimIfExists(std::string&& s);

 private:
  friend NFSLIB_EXPORT NfsPath operator/(const NfsPath& dir, const std::string& name);
  struct Canonical {};
  NfsPath(Canonical, std::string path) : m_path(std::move(path)) {}

  std::string m_path;
};

/// The path of `name` under `dir`, made canonical again: ".." gives the parent of `dir`, "x/y" goes
/// down two levels, an empty name gives `dir`.
NFSLIB_EXPORT NfsPath operator/(const NfsPath& dir, const std::string& name);

inline bool operator==(const NfsPath& a, const NfsPath& b) { return a.str() == b.str(); }
/// Byte-wise order; a proper prefix comes first.
inline bool operator<(const NfsPath& a, const NfsPath& b) { return a.str() < b.str(); }
NFSLIB_EXPORT std::ostream& operator<<(std::ostream& out, const NfsPath& path);

}  // namespace nfslib

/// \cond std has no page of the reference
/// A path and its text hash alike.
template <>
struct std::hash<nfslib::NfsPath> {
  std::size_t operator()(const nfslib::NfsPath& path) const noexcept {
    return std::hash<std::string>{}(path.str());
  }
};
/// \endcond
