#include "network/read_ahead.h"

#include "common/log.h"
#include "common/statistics.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <sys/socket.h>

namespace nfslib::network {

std::size_t ReadAhead::receive(memory::mutable_buffer dst, int flags) {
  ssize_t received = 0;
  do {
    received = recv(m_socket, dst.data(), dst.size(), flags);
  } while (received < 0 && errno == EINTR);
  // A peer that resets the connection closes it, if rudely: some clients always leave like that.
  if (received < 0 && errno == ECONNRESET) return 0;
  if (received < 0) {
    throw std::runtime_error(
        message("Failed to receive data. Error: [%1]", utility::getErrnoDescription(errno)));
  }
  m_received += static_cast<std::uint64_t>(received);
  statistics::count(statistics::Counter::BytesReceived, static_cast<std::uint64_t>(received));
  return static_cast<std::size_t>(received);
}

bool ReadAhead::fill() {
  const std::size_t received = receive({m_area.data() + m_end, kCapacity - m_end}, 0);
  m_end += received;
  return received != 0;
}

bool ReadAhead::require(std::size_t n) {
  if (m_begin == m_end) m_begin = m_end = 0;
  if (m_begin + n > kCapacity) {
    std::memmove(m_area.data(), m_area.data() + m_begin, m_end - m_begin);
    m_end -= m_begin;
    m_begin = 0;
  }
  while (m_end - m_begin < n) {
    if (!fill()) return false;
  }
  return true;
}

std::size_t ReadAhead::take(memory::mutable_buffer dst) {
  const std::size_t wanted = dst.size();
  const std::size_t ready = memory::copy(buffered(), dst);
  m_begin += ready;
  dst += ready;
  while (dst) {
    const std::size_t received = receive(dst, MSG_WAITALL);
    if (received == 0) break;
    dst += received;
  }
  return wanted - dst.size();
}

std::size_t ReadAhead::skip(std::size_t n) {
  std::size_t skipped = 0;
  while (true) {
    const std::size_t step = std::min(n - skipped, m_end - m_begin);
    m_begin += step;
    skipped += step;
    if (skipped == n) return skipped;
    m_begin = m_end = 0;
    if (!fill()) return skipped;
  }
}

}  // namespace nfslib::network
