#pragma once

#include <nfslib/export.h>
#include <nfslib/file_system.h>

#include <memory>

namespace nfslib {

/// A forward iterator over one pass of a directory. Copies share the pass: advancing one moves the
/// entry that all of them see. A default-constructed iterator is the end position.
///
/// Not thread-safe, as the pass is not.
class NFSLIB_EXPORT DirectoryIterator {
 public:
  DirectoryIterator() = default;
  /// Starts a pass over `dir`. At the end at once when the directory has no entries or gives no
  /// pass. Throws what `Directory::Enumerate` throws.
  explicit DirectoryIterator(const std::shared_ptr<Directory>& dir);

  /// Advances the shared pass; at the end it does nothing. Throws what the host's enumerator
  /// throws.
  DirectoryIterator& operator++();
  /// The entry under the cursor; not to be used at the end.
  const DirEntry& operator*() const { return m_enumerator->Current(); }
  /// The same entry.
  const DirEntry* operator->() const { return &m_enumerator->Current(); }
  /// True while there is an entry under the cursor.
  explicit operator bool() const { return m_enumerator && m_enumerator->IsValid(); }

  /// Two iterators are equal when they share a pass, or both are at the end.
  bool operator==(const DirectoryIterator&) const = default;

 private:
  std::shared_ptr<DirectoryEnumerator> m_enumerator;  // empty at the end
};

/// Starts a pass over `dir`.
inline DirectoryIterator iterate(const std::shared_ptr<Directory>& dir) {
  return DirectoryIterator(dir);
}
/// For range-for: goes on with the pass where it stands.
inline DirectoryIterator begin(const DirectoryIterator& it) { return it; }
/// For range-for: the end position.
inline DirectoryIterator end(const DirectoryIterator&) { return {}; }

}  // namespace nfslib
