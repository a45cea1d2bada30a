#pragma once

#include "common/buffers.h"
#include "common/zero_pages.h"

#include <cstddef>
#include <cstdint>

namespace nfslib::network {

// Reads a byte stream from a socket ahead of what is asked for, so that calls which arrived
// together cost one system call. Keeps at most kCapacity bytes; what goes beyond is received where
// it belongs.
class ReadAhead {
 public:
  static constexpr std::size_t kCapacity = 65'536;

  explicit ReadAhead(int socket) : m_socket(socket) {}

  // What has been received and not yet taken.
  memory::const_buffer buffered() const { return {m_area.data() + m_begin, m_end - m_begin}; }
  // Receives until at least `n` bytes (at most kCapacity) are buffered. False when the peer closed
  // the connection before that; throws std::runtime_error when receiving fails.
  bool require(std::size_t n);
  // Takes up to dst.size() buffered bytes and receives the rest. Returns the bytes filled, fewer
  // than asked when the peer closed the connection. Throws std::runtime_error.
  std::size_t take(memory::mutable_buffer dst);
  // Drops the next `n` bytes. Returns how many there were before the peer closed. Throws the same.
  std::size_t skip(std::size_t n);
  // All bytes that have come so far.
  std::uint64_t received() const { return m_received; }

 private:
  // One receive into `dst`; 0 when the peer closed.
  std::size_t receive(memory::mutable_buffer dst, int flags);
  bool fill();

  int m_socket;
  memory::ZeroPages m_area{kCapacity};
  std::size_t m_begin = 0;
  std::size_t m_end = 0;
  std::uint64_t m_received = 0;
};

}  // namespace nfslib::network
