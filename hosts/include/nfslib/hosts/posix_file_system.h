#pragma once

#include <nfslib/file_system.h>
#include <nfslib/invalidation.h>

#include <cstddef>
#include <memory>
#include <string>

namespace nfslib::hosts {

namespace posix {
class Tree;
class Watcher;
}  // namespace posix

/// A directory of this machine and everything below it.
///
/// The tree is never left: names are single components, no symbolic link is followed, and a
/// directory is found anew from the root, beneath it, for every operation. So one that somebody
/// moves out of the tree is out of reach at once, and directories hold no descriptors however many
/// are kept open. Files and symbolic links hold one each (a file that is written a second one),
/// since they must stay usable after their last name is gone; the limit on open files bounds how
/// many.
///
/// A directory that is renamed through this host keeps its objects. One that another process
/// renames is looked for under its old name, and not found there; where changes are watched, the
/// library is told where it went.
///
/// Object ids are handed out in the order in which objects are first seen and are valid for as long
/// as this object lives; each object seen costs some 60 bytes until it is removed through this
/// host, when its place is kept for another.
///
/// Large directories are read ahead while they are listed, by one more thread a listing where there
/// is one to be had. A listing shows every change made through this host, and those that others
/// make within a second; times of access may be a second old.
///
/// Files are opened for reading, and for writing when they are first written to or resized, so
/// exporting a tree that may only be read works and programs being run can be served. A file whose
/// owner is the user of the process can be written whatever its mode, as NFS clients expect of
/// files that they have created. Block and character devices, sockets and named pipes are listed
/// but cannot be opened. Needs /proc for writing to files that were opened before, for modes and
/// for hard links.
///
/// Size (of files), mode (not of symbolic links), owner, group, access and modification time can be
/// set; access lists cannot. Any number of threads may use the tree.
class PosixFileSystem : public FileSystem, public IStatistics, public IWatchable {
 public:
  /// How the path of a directory below the root is walked.
  enum class PathWalk {
    Automatic,    ///< by the kernel in one call (openat2), else component by component
    ByComponent,  ///< what sandboxes that refuse openat2, and kernels before 5.6, end up with
  };

  /// Serves `rootDirectory`, which is opened at once and may be reached through symbolic links.
  /// Throws INfsException when it is not a directory that can be opened.
  explicit PosixFileSystem(const std::string& rootDirectory, PathWalk walk = PathWalk::Automatic);
  ~PosixFileSystem() override;

  /// Tells `listener` of changes by others, on a thread of its own that ends with this object.
  /// Hand it what it gets to `NfsServer::invalidate`, with the tree that is exported:
  ///
  ///     tree.watchChanges([&](const Invalidation& what) { server.invalidate(tree, what); });
  ///
  /// Without this, and wherever no more directories can be watched, the library keeps nothing of
  /// the tree and reads it anew for each request. Directories are watched as they come into use, at
  /// most `mostDirectories` and as many as the system lets a user have (the sysctl
  /// fs.inotify.max_user_watches); the log says so when that is not enough. Some 1.2 KiB of the
  /// system's memory and 200 bytes of the process are used for each.
  ///
  /// Not reported by the system, and so not seen while the library keeps what it has read: what is
  /// written through memory maps, what happens on the servers of network file systems, and what is
  /// mounted below the root. Of a file with several names, a change is told for the one it was made
  /// through.
  ///
  /// To be called once at most, before the tree is exported. Should the system have no watches at
  /// all, the log says so, and nothing is kept.
  void watchChanges(InvalidationListener listener, std::size_t mostDirectories = 65'536);

  std::shared_ptr<Directory> OpenRoot() override;
  bool Watch(const NfsPath& directory) override;
  /// Those of the file system that the root is on.
  FileSystemStatistics GetStatistics() const override;

 private:
  std::shared_ptr<posix::Tree> m_tree;
  std::shared_ptr<Directory> m_root;
  std::unique_ptr<posix::Watcher> m_watcher;
};

}  // namespace nfslib::hosts
