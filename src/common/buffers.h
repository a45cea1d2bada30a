#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace nfslib::memory {

// A view of bytes that somebody else owns and that may be written. The class takes part in the
// arithmetic of one-pass encoders: `+=` moves the start, `append` copies and moves.
class mutable_buffer {
 public:
  mutable_buffer() = default;
  mutable_buffer(void* data, std::size_t size)
      : m_data(static_cast<std::byte*>(data)), m_size(size) {}
  // The first `max` bytes of `b`, or all of it when it is shorter.
  mutable_buffer(const mutable_buffer& b, std::size_t max)
      : m_data(b.m_data), m_size(std::min(b.m_size, max)) {}

  mutable_buffer& operator+=(std::size_t n) {
    const std::size_t step = std::min(n, m_size);
    m_data += step;
    m_size -= step;
    return *this;
  }
  std::byte* operator[](std::size_t i) const { return m_data + i; }
  explicit operator bool() const { return m_size != 0; }
  bool empty() const { return m_size == 0; }
  std::byte* begin() const { return m_data; }
  std::byte* end() const { return m_data + m_size; }
  std::byte* data() const { return m_data; }
  std::size_t size() const { return m_size; }

 private:
  std::byte* m_data = nullptr;
  std::size_t m_size = 0;
};

// The same for bytes that are only read.
class const_buffer {
 public:
  const_buffer() = default;
  const_buffer(const void* data, std::size_t size)
      : m_data(static_cast<const std::byte*>(data)), m_size(size) {}
  const_buffer(const const_buffer& b, std::size_t max)
      : m_data(b.m_data), m_size(std::min(b.m_size, max)) {}
  const_buffer(const mutable_buffer& b)  // NOLINT(google-explicit-constructor): a read-only view
      : m_data(b.data()), m_size(b.size()) {}

  const_buffer& operator+=(std::size_t n) {
    const std::size_t step = std::min(n, m_size);
    m_data += step;
    m_size -= step;
    return *this;
  }
  const std::byte* operator[](std::size_t i) const { return m_data + i; }
  explicit operator bool() const { return m_size != 0; }
  bool empty() const { return m_size == 0; }
  const std::byte* begin() const { return m_data; }
  const std::byte* end() const { return m_data + m_size; }
  const std::byte* data() const { return m_data; }
  std::size_t size() const { return m_size; }

 private:
  const std::byte* m_data = nullptr;
  std::size_t m_size = 0;
};

// Byte-wise order; a proper prefix comes first.
bool operator<(const const_buffer& a, const const_buffer& b);
bool operator==(const const_buffer& a, const const_buffer& b);

// Copies as much of `src` as `dst` holds and returns the number of bytes.
inline std::size_t copy(const const_buffer& src, const mutable_buffer& dst) {
  const std::size_t n = std::min(src.size(), dst.size());
  if (n != 0) std::memcpy(dst.data(), src.data(), n);
  return n;
}

// Copies, then moves the start of `dst` behind what was copied.
inline mutable_buffer& append(const const_buffer& src, mutable_buffer& dst) {
  return dst += copy(src, dst);
}

inline void zero(const mutable_buffer& b) {
  if (b) std::memset(b.data(), 0, b.size());
}

}  // namespace nfslib::memory
