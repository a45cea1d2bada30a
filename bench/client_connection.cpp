#include "client_connection.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {
namespace {

constexpr std::size_t kInputSize = 4 << 20;
constexpr std::size_t kSmallRecord = 64 << 10;
constexpr std::size_t kXidInCall = kMarkSize;
constexpr std::size_t kProcedureInCall = kMarkSize + 20;

std::uint64_t nanosecondsNow() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::nanoseconds(now).count());
}

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::vector<std::byte> makeCallHeader(std::uint32_t program, std::uint32_t version) {
  std::byte buffer[256];
  Encoder header(buffer);
  header.beginRecord();
  header.word(0).word(0).word(2).word(program).word(version).word(0);  // xid, CALL, ..., procedure
  std::byte credentials[128];
  Encoder authSys(credentials);
  authSys.word(0).opaque("nfslib-bench").word(0).word(0).word(0);  // stamp, name, uid, gid, groups
  header.word(kAuthSys).word(static_cast<std::uint32_t>(authSys.size())).bytes(authSys.written());
  header.word(0).word(0);  // the verifier
  return {header.written().begin(), header.written().end()};
}

}  // namespace

ClientConnection::ClientConnection(const std::string& host, unsigned short port,
                                   std::uint32_t program, std::uint32_t version, unsigned slots,
                                   std::size_t largestCall)
    : m_callHeader(makeCallHeader(program, version)),
      m_slots(slots),
      m_output(slots * largestCall),
      m_out(m_output),
      m_input(kInputSize) {
  if (slots == 0 || slots > kMaxSlots) throw std::runtime_error("1 to 256 calls can be in flight");
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    throw std::runtime_error("[" + host + "] is not an IPv4 address");
  }
  m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_socket < 0) fail("socket");
  const int bufferSize = 1 << 20;
  const int on = 1;
  setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
  setsockopt(m_socket, SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof bufferSize);
  setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int cause = errno;
    close(m_socket);
    throw std::system_error(cause, std::generic_category(), "connect");
  }
}

ClientConnection::~ClientConnection() { close(m_socket); }

std::size_t ClientConnection::beginCall(unsigned slot, Procedure procedure) {
  Slot& call = m_slots.at(slot);
  if (call.waiting) throw std::logic_error("the slot has a call in flight");
  call = {.xid = (m_turn++ << 8) | slot, .waiting = true, .started = nanosecondsNow()};
  ++m_inFlight;
  std::byte* const header = m_out.space(m_callHeader.size());
  std::memcpy(header, m_callHeader.data(), m_callHeader.size());
  toWire(call.xid, header + kXidInCall);
  toWire(static_cast<std::uint32_t>(procedure), header + kProcedureInCall);
  return m_out.size() - m_callHeader.size() + kMarkSize;
}

void ClientConnection::flush() {
  for (auto rest = m_out.written(); !rest.empty();) {
    const ssize_t n = send(m_socket, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (n < 0) fail("send");
    rest = rest.subspan(static_cast<std::size_t>(n));
  }
  m_out.clear();
}

void ClientConnection::receive(const Results& results) {
  for (bool any = false; !any;) {
    // Long records are taken to their end, so that what follows starts at the front again; moving
    // the rest of a short one costs nothing.
    std::size_t room = m_input.size() - m_end;
    if (m_missing > kSmallRecord) room = std::min(room, m_missing);
    const ssize_t n = recv(m_socket, m_input.data() + m_end, room, 0);
    if (n < 0) fail("recv");
    if (n == 0) throw std::runtime_error("the server closed the connection");
    m_end += static_cast<std::size_t>(n);
    const std::uint64_t now = nanosecondsNow();
    for (auto record = nextRecord(); !record.empty(); record = nextRecord()) {
      acceptReply(record, now, results);
      any = true;
    }
    if (m_begin == m_end) {
      m_begin = m_end = 0;
    } else if (m_end - m_begin < kSmallRecord || m_end + m_missing > m_input.size()) {
      std::memmove(m_input.data(), m_input.data() + m_begin, m_end - m_begin);
      m_end -= std::exchange(m_begin, 0);
    }
  }
}

// Takes one record from the input, its fragments joined; nothing when it has not come completely.
std::span<const std::byte> ClientConnection::nextRecord() {
  std::size_t size = 0;
  std::size_t at = m_begin;
  for (bool last = false; !last;) {
    m_missing = kMarkSize;
    if (m_end - at < kMarkSize) return {};
    const auto mark = fromWire<std::uint32_t>(m_input.data() + at);
    last = (mark & kLastFragment) != 0;
    const std::size_t length = mark & ~kLastFragment;
    size += length;
    if (size == 0 || size + kMaxHeaders > m_input.size() / 2) {
      throw std::runtime_error("a reply of a strange size");
    }
    if (m_end - at - kMarkSize < length) {
      m_missing = length - (m_end - at - kMarkSize);
      return {};
    }
    at += kMarkSize + length;
  }
  std::byte* const record = m_input.data() + m_begin + kMarkSize;
  std::size_t joined = fromWire<std::uint32_t>(m_input.data() + m_begin) & ~kLastFragment;
  for (std::size_t from = m_begin + kMarkSize + joined; joined < size;) {
    const std::size_t length = fromWire<std::uint32_t>(m_input.data() + from) & ~kLastFragment;
    std::memmove(record + joined, m_input.data() + from + kMarkSize, length);
    joined += length;
    from += kMarkSize + length;
  }
  m_begin = at;
  m_missing = 0;
  return {record, size};
}

void ClientConnection::acceptReply(std::span<const std::byte> reply, std::uint64_t now,
                                   const Results& results) {
  Decoder decoder(reply);
  const std::uint32_t xid = decoder.word();
  const unsigned slot = xid & 0xFF;
  if (slot >= m_slots.size() || !m_slots[slot].waiting || m_slots[slot].xid != xid) {
    throw std::runtime_error("a reply with a transaction id that is not in flight");
  }
  if (decoder.word() != 1) throw std::runtime_error("a message that is not a reply");
  if (decoder.word() != 0) throw std::runtime_error("the call was denied");
  decoder.word();
  decoder.opaque();  // the verifier
  if (const std::uint32_t status = decoder.word(); status != 0) {
    throw std::runtime_error("the call was not executed, accept status " + std::to_string(status));
  }
  m_slots[slot].waiting = false;
  --m_inFlight;
  results(slot, decoder, now - m_slots[slot].started);
}

}  // namespace bench
