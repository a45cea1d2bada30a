#pragma once

#include <cstddef>
#include <cstdint>

namespace nfslib::hosts::archive {

// Bytes that can be read anywhere: a file, what a compressed file holds, a member of an archive.
//
// Thread-safe.
class ByteSource {
 public:
  // Fills `buffer` with the `size` bytes from `offset` on and returns their number, which is less
  // only where the source ends. Throws SystemNfsException, with EIO where what is stored is
  // damaged; bytes before the damage can still be read.
  virtual std::size_t readAt(std::uint64_t offset, void* buffer, std::size_t size) = 0;
  virtual ~ByteSource() = default;
};

}  // namespace nfslib::hosts::archive
