#pragma once

#include "memory/space.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace nfslib::hosts::memory {

// The content of a file: a size, and the parts of it that were written. A gap reads as zeros and
// takes no memory.
//
// Content is kept in chunks, each as long as the last byte written in it asks for, in granules.
// That length is what counts against the space: a small file takes little, and a byte here and
// there not much less than the bookkeeping for it. Not thread-safe: the owner locks.
class SparseBytes {
 public:
  static constexpr std::size_t kChunk = 64 * 1024;
  static constexpr std::size_t kGranule = 128;
  // No byte lies beyond what a signed file offset can name.
  static constexpr std::uint64_t kLargestSize = INT64_MAX;

  explicit SparseBytes(Space& space) : m_space(space) {}
  SparseBytes(const SparseBytes&) = delete;
  SparseBytes& operator=(const SparseBytes&) = delete;
  ~SparseBytes();

  std::uint64_t size() const { return m_size; }
  // Copies what there is of the `length` bytes at `offset` and returns their number.
  std::uint64_t read(std::uint64_t offset, std::byte* out, std::uint64_t length) const;
  // Throws, with size and content as they were, when the space or the machine's memory is short or
  // the end lies beyond `kLargestSize`.
  void write(std::uint64_t offset, const std::byte* data, std::uint64_t length);
  // Cuts or extends; throws only for a size beyond `kLargestSize`.
  void resize(std::uint64_t size);

 private:
  using Chunk = std::vector<std::byte>;

  // The length of a chunk of which `used` bytes are in use.
  static std::size_t lengthFor(std::size_t used);
  static void grow(Chunk& chunk, std::size_t length);

  Space& m_space;
  std::uint64_t m_size = 0;
  std::map<std::uint64_t, Chunk> m_chunks;  // by offset / kChunk
};

}  // namespace nfslib::hosts::memory
