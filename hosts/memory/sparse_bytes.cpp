#include "memory/sparse_bytes.h"

#include <nfslib/exception.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace nfslib::hosts::memory {

namespace {

// The part of [offset, offset + length) that lies in one chunk.
struct Piece {
  std::uint64_t chunk;  // its number
  std::size_t begin;    // first byte, inside the chunk
  std::size_t length;

  std::size_t end() const { return begin + length; }
};

template <class Visit>
void forEachPiece(std::uint64_t offset, std::uint64_t length, Visit visit) {
  while (length > 0) {
    const auto begin = static_cast<std::size_t>(offset % SparseBytes::kChunk);
    const auto part =
        static_cast<std::size_t>(std::min<std::uint64_t>(length, SparseBytes::kChunk - begin));
    visit(Piece{offset / SparseBytes::kChunk, begin, part});
    offset += part;
    length -= part;
  }
}

void requireSize(std::uint64_t offset, std::uint64_t length) {
  if (offset > SparseBytes::kLargestSize || length > SparseBytes::kLargestSize - offset) {
    throw SystemNfsException(EFBIG, "A file cannot be larger than " +
                                        std::to_string(SparseBytes::kLargestSize) + " bytes.");
  }
}

}  // namespace

SparseBytes::~SparseBytes() {
  for (const auto& [number, chunk] : m_chunks) m_space.giveBack(chunk.size());
}

std::uint64_t SparseBytes::read(std::uint64_t offset, std::byte* out, std::uint64_t length) const {
  if (offset >= m_size) return 0;
  const std::uint64_t count = std::min(length, m_size - offset);
  forEachPiece(offset, count, [&](const Piece& piece) {
    std::size_t stored = 0;
    if (const auto at = m_chunks.find(piece.chunk); at != m_chunks.end()) {
      const Chunk& chunk = at->second;
      if (chunk.size() > piece.begin) {
        stored = std::min(piece.length, chunk.size() - piece.begin);
        std::memcpy(out, chunk.data() + piece.begin, stored);
      }
    }
    std::memset(out + stored, 0, piece.length - stored);
    out += piece.length;
  });
  return count;
}

void SparseBytes::write(std::uint64_t offset, const std::byte* data, std::uint64_t length) {
  requireSize(offset, length);
  if (length == 0) return;

  std::uint64_t missing = 0;
  forEachPiece(offset, length, [&](const Piece& piece) {
    const auto at = m_chunks.find(piece.chunk);
    const std::size_t stored = at == m_chunks.end() ? 0 : at->second.size();
    missing += std::max(stored, lengthFor(piece.end())) - stored;
  });
  Reservation reservation(m_space, missing);

  // All memory is had before the first byte changes: zeros at the end of a chunk are not visible.
  forEachPiece(offset, length, [&](const Piece& piece) {
    Chunk& chunk = m_chunks[piece.chunk];
    const std::size_t stored = chunk.size();
    if (piece.end() <= stored) return;
    grow(chunk, lengthFor(piece.end()));
    reservation.keep(chunk.size() - stored);
  });
  forEachPiece(offset, length, [&](const Piece& piece) {
    std::memcpy(m_chunks.find(piece.chunk)->second.data() + piece.begin, data, piece.length);
    data += piece.length;
  });
  m_size = std::max(m_size, offset + length);
}

std::size_t SparseBytes::lengthFor(std::size_t used) {
  static_assert(kChunk % kGranule == 0);
  return (used + kGranule - 1) / kGranule * kGranule;
}

// Small appends must not copy the chunk each time, and a chunk never holds more than it can need.
void SparseBytes::grow(Chunk& chunk, std::size_t length) {
  if (length > chunk.capacity()) {
    chunk.reserve(std::min(std::max(length, 2 * chunk.capacity()), kChunk));
  }
  chunk.resize(length);
}

void SparseBytes::resize(std::uint64_t size) {
  requireSize(size, 0);
  if (size < m_size) {
    const std::uint64_t whole = size / kChunk;
    const auto rest = static_cast<std::size_t>(size % kChunk);
    auto first = m_chunks.lower_bound(whole);
    // What lies past the new end goes, lest it shows again when the file grows.
    if (rest > 0 && first != m_chunks.end() && first->first == whole) {
      Chunk& last = first->second;
      if (const std::size_t kept = lengthFor(rest); last.size() > kept) {
        m_space.giveBack(last.size() - kept);
        last.resize(kept);
        last.shrink_to_fit();
      }
      if (last.size() > rest) std::memset(last.data() + rest, 0, last.size() - rest);
      ++first;
    }
    for (auto chunk = first; chunk != m_chunks.end(); ++chunk) {
      m_space.giveBack(chunk->second.size());
    }
    m_chunks.erase(first, m_chunks.end());
  }
  m_size = size;
}

}  // namespace nfslib::hosts::memory
