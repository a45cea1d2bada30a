#pragma once

#include "common/memory_stream.h"
#include "network/socket_descriptor.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

// The other end of a real socket, for tests of the transports.

namespace nfslib::testing {

using Bytes = std::vector<std::byte>;

inline const unsigned kLoopback = htonl(INADDR_LOOPBACK);

inline Bytes wordBytes(std::initializer_list<unsigned> words) {
  MemoryStream out;
  for (const unsigned word : words) out << word;
  const auto bytes = out.getOutputBuffer();
  return {bytes.begin(), bytes.end()};
}

inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A call with AUTH_NONE and no arguments.
inline Bytes nullCall(unsigned xid, unsigned program, unsigned version, unsigned procedure = 0) {
  return wordBytes({xid, 0, 2, program, version, procedure, 0, 0, 0, 0});
}

// A record: its mark, and the call behind it.
inline Bytes record(const Bytes& call) {
  return wordBytes({0x80000000U | static_cast<unsigned>(call.size())}) + call;
}

// The words of an accepted reply without results.
inline Bytes accepted(unsigned xid, unsigned status = 0) {
  return wordBytes({xid, 1, 0, 0, 0, status});
}

// A socket that gives up after a while instead of hanging a test.
class RpcClient {
 public:
  RpcClient(int type, unsigned port, unsigned address = kLoopback)
      : m_socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<std::uint16_t>(port));
    target.sin_addr.s_addr = address;
    const timeval patience{20, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (connect(m_socket, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0)
      fail("connect");
  }

  void send(const Bytes& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = ::send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) fail("send");
      sent += static_cast<std::size_t>(n);
    }
  }
  // Up to n bytes, fewer when the peer closes.
  Bytes receive(std::size_t n) {
    Bytes bytes(n);
    const ssize_t received = recv(m_socket, bytes.data(), n, MSG_WAITALL);
    if (received < 0 && errno != ECONNRESET) fail("recv");
    bytes.resize(received < 0 ? 0 : static_cast<std::size_t>(received));
    return bytes;
  }
  // The next record without its mark; nothing when the peer closed.
  std::optional<Bytes> receiveRecord() {
    const Bytes mark = receive(4);
    if (mark.size() < 4) return std::nullopt;
    unsigned word = 0;
    std::memcpy(&word, mark.data(), 4);
    return receive(ntohl(word) & 0x7FFFFFFFU);
  }
  Bytes receiveDatagram() {
    Bytes bytes(65536);
    const ssize_t received = recv(m_socket, bytes.data(), bytes.size(), 0);
    if (received < 0) fail("recv");
    bytes.resize(static_cast<std::size_t>(received));
    return bytes;
  }
  void halfClose() { ::shutdown(m_socket, SHUT_WR); }
  int descriptor() const { return m_socket; }

 private:
  [[noreturn]] static void fail(const char* step) {
    throw std::runtime_error(std::string(step) + ": " + std::strerror(errno));
  }

  network::SocketDescriptor m_socket;
};

// A port of 127.0.0.1 that nobody had a moment ago.
inline unsigned freePort(int type = SOCK_STREAM) {
  const network::SocketDescriptor socket(::socket(AF_INET, type, 0));
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_addr.s_addr = kLoopback;
  socklen_t size = sizeof own;
  if (bind(socket, reinterpret_cast<sockaddr*>(&own), size) != 0 ||
      getsockname(socket, reinterpret_cast<sockaddr*>(&own), &size) != 0) {
    throw std::runtime_error("no free port");
  }
  return ntohs(own.sin_port);
}

}  // namespace nfslib::testing
