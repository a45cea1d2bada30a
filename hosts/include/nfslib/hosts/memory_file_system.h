#pragma once

#include <nfslib/file_system.h>

#include <cstdint>
#include <memory>

namespace nfslib::hosts {

namespace memory {
class Tree;
}

/// A tree in memory with a capacity. It starts empty, is owned by the user of the process, and is
/// gone with the last object that was opened in it.
///
/// What counts against the capacity: `kEntryCost` for every name in the tree, the bytes of symbolic
/// links, and of every file the parts that were written: from the start of their 64 KiB chunk to
/// the last byte written in it, rounded up to 128 bytes (a gap costs nothing). What does not fit is
/// refused with `OutOfSpaceNfsException`. Removing a name gives its cost back at once; the content
/// follows when nobody holds the object open any more.
///
/// Any number of threads may use the tree. Reading a file does not move its access time. The size
/// of files, mode, owner, group, access and modification time can be set; access lists cannot.
class MemoryFileSystem : public FileSystem, public IStatistics {
 public:
  /// Bytes counted for each name.
  static constexpr std::uint64_t kEntryCost = 512;

  /// An empty tree with room for so many bytes.
  explicit MemoryFileSystem(std::uint64_t capacityBytes);
  ~MemoryFileSystem() override;

  std::shared_ptr<Directory> OpenRoot() override;
  /// The capacity, and as many files as it has room for names.
  FileSystemStatistics GetStatistics() const override;

  /// What the tree was made with.
  std::uint64_t capacityBytes() const;
  /// What of it is in use, at the moment.
  std::uint64_t usedBytes() const;

 private:
  std::shared_ptr<memory::Tree> m_tree;
  std::shared_ptr<Directory> m_root;
};

}  // namespace nfslib::hosts
