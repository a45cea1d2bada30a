#pragma once

#include <nfslib/file_system.h>

#include <memory>

namespace nfslib::hosts {

/// Another host's tree that cannot be changed: every change is refused with INfsException, the rest
/// is passed on.
///
/// An export without `NfsMountSpec::writeEnabled` grants no rights to change anything, but over NFS
/// version 3 a client that does not ask for its rights is not stopped by that. A host that must not
/// be changed stops it.
///
/// As safe for threads as the tree behind it.
class ReadOnlyFileSystem : public FileSystem, public IStatistics, public IWatchable {
 public:
  /// Shows `tree`, and owns it from now on.
  explicit ReadOnlyFileSystem(std::unique_ptr<FileSystem> tree) : m_tree(std::move(tree)) {}

  std::shared_ptr<Directory> OpenRoot() override;
  /// Throws INfsException when the tree has none.
  FileSystemStatistics GetStatistics() const override;
  /// Yes for a tree that only the library would change.
  bool Watch(const NfsPath& directory) override;

 private:
  const std::unique_ptr<FileSystem> m_tree;
};

}  // namespace nfslib::hosts
