#pragma once

#include <nfslib/file_system.h>

#include <cstdint>
#include <memory>

namespace writable {

/// A tree in memory that clients may change in every way: files, directories, symbolic links, hard
/// links, renames. As small as a host can be that does all of that: one lock for the whole tree.
///
/// It starts empty and is gone with the last object that was opened in it. Every name costs one
/// block, and so does every block of a file that was written to; what does not fit is refused.
class Tree : public nfslib::FileSystem {
 public:
  static constexpr std::uint64_t kBlock = 4096;  ///< bytes

  explicit Tree(std::uint64_t capacityBytes);
  std::shared_ptr<nfslib::Directory> OpenRoot() override { return m_root; }

 private:
  std::shared_ptr<nfslib::Directory> m_root;
};

}  // namespace writable
