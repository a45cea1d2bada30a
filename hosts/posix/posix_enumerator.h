#pragma once

#include <nfslib/file_system.h>

#include "posix/tree.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace nfslib::hosts::posix {

// A pass over a directory. Names are read a buffer at a time, the attributes of each when it is its
// turn. An entry that is gone by then, or whose attributes the system does not tell (a dead mount),
// is left out.
class PosixEnumerator : public DirectoryEnumerator {
 public:
  // `directory` is open for reading.
  PosixEnumerator(std::shared_ptr<Tree> tree, OpenDirectory directory);

  const DirEntry& Current() const override { return m_entry; }
  bool IsValid() const override { return m_valid; }
  void MoveNext() override;

 private:
  // The next name that the system lists; nullptr past the last one. Good until the next call.
  const char* nextName();

  const std::shared_ptr<Tree> m_tree;
  const OpenDirectory m_directory;
  std::vector<char> m_buffer;
  std::size_t m_position = 0;  // of the next record in the buffer
  std::size_t m_end = 0;       // of the last one
  DirEntry m_entry;
  bool m_valid = false;
};

}  // namespace nfslib::hosts::posix
