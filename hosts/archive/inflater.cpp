#include "archive/inflater.h"

#include <algorithm>
#include <limits>
#include <new>
#include <string>

namespace nfslib::hosts::archive {

Inflater::Inflater(int windowBits) {
  if (::inflateInit2(&m_stream, windowBits) != Z_OK) throw std::bad_alloc();
}

Inflater::Inflater(const Inflater& other) {
  if (::inflateCopy(&m_stream, &other.m_stream) != Z_OK) throw std::bad_alloc();
}

Inflater::~Inflater() { ::inflateEnd(&m_stream); }

void Inflater::reset() { ::inflateReset(&m_stream); }

Inflater::Step Inflater::inflate(CompressedInput& input, std::uint8_t* buffer, std::size_t size) {
  const auto bytes = input.peek();
  size = std::min<std::size_t>(size, std::numeric_limits<uInt>::max());
  m_stream.next_in = bytes.data();
  m_stream.avail_in = static_cast<uInt>(bytes.size());
  m_stream.next_out = buffer;
  m_stream.avail_out = static_cast<uInt>(size);
  const int result = ::inflate(&m_stream, Z_NO_FLUSH);
  input.skip(bytes.size() - m_stream.avail_in);
  if (result == Z_MEM_ERROR) throw std::bad_alloc();
  const std::size_t done = size - m_stream.avail_out;
  const bool isDamaged = result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR;
  // What was decoded before the damage is good, and the next call meets the damage again. In the
  // last block it may be the checksum that is wrong, which is about all of it.
  constexpr int kInLastBlock = 64;
  if (isDamaged && (done == 0 || (m_stream.data_type & kInLastBlock) != 0)) {
    input.fail(m_stream.msg != nullptr ? m_stream.msg : "it is damaged");
  }
  return {.size = done, .ended = result == Z_STREAM_END};
}

}  // namespace nfslib::hosts::archive
