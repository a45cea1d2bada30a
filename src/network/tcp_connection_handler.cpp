#include "network/tcp_connection_handler.h"

#include <nfslib/file_system.h>

#include "common/log.h"
#include "common/statistics.h"
#include "network/send_file.h"
#include "network/stop_flag.h"
#include "rpc/rpc_request_processor.h"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace nfslib::network {

namespace {

constexpr unsigned kMarkSize = 4;
constexpr unsigned kLastFragment = 0x80000000;
// Beyond this a record is no call that anybody means: skipping it would only keep a bad peer.
constexpr unsigned kHopelessLength = 16 * 1'048'576;
// Enough of an oversized record to read its call header: credential and verifier of 400 bytes each.
constexpr unsigned kHeadOfRecord = 1024;
constexpr unsigned kSmallRecord = 16'384;
// Replies are kept back while they are small, few and fresh.
constexpr std::size_t kSmallReply = 32'768;
constexpr std::size_t kKeptReplies = 65'536;
constexpr std::chrono::microseconds kReplyPatience{250};

unsigned wordAt(const std::byte* bytes) {
  unsigned word = 0;
  MemoryStream::copyBytesWithCorrectOrder(bytes, reinterpret_cast<std::byte*>(&word), sizeof word);
  return word;
}

}  // namespace

TcpConnectionHandler::TcpConnectionHandler(SocketDescriptor socket,
                                           rpc::RpcRequestProcessor& processor,
                                           const sockaddr_in& peer)
    : ConnectionHandler(processor, peer),
      m_socket(std::move(socket)),
      m_received(std::in_place, m_socket) {}

void TcpConnectionHandler::processRequests(const bool& stop) {
  try {
    while (!isSet(stop) && readFragment()) {
      // Sending from a file saves this thread two copies, at the price of a slower one for the
      // peer. It pays while the peer waits for this reply; with more calls at hand the peer takes
      // one reply while the next is made, and what its reading costs decides.
      m_stream->allowFiles(!anotherRecordAtHand());
      m_processor.TcpRequestReceived(*this);
      renewFailedStream();
    }
    sendReplies({});
  } catch (const std::exception& e) {
    const std::string why = e.what();
    try {
      sendReplies({});  // the calls before the one that failed have their answers
    } catch (
        const std::exception&) {  // NOLINT(bugprone-empty-catch): the first failure is the news
    }
    throw std::runtime_error(message("Failed to process request. Exception: [%1]", why));
  }
}

bool TcpConnectionHandler::readFragment() {
  FragmentHeader header;
  if (!readFragmentHeader(header) || header.length == 0) return false;
  if (m_rules.joinsFragments && !header.last) return readFragments(header);
  return header.length > MemoryStream::getBufferSize() ? readOversizedFragment(header)
                                                       : readFragmentData(header);
}

bool TcpConnectionHandler::readFragmentHeader(FragmentHeader& header) {
  try {
    // Nothing is kept back while the connection waits.
    if (m_received->buffered().size() < kMarkSize) sendReplies({});
    if (!m_received->require(kMarkSize)) return endOfStream();
    std::array<std::byte, kMarkSize> mark{};
    m_received->take({mark.data(), mark.size()});
    const unsigned word = wordAt(mark.data());
    header = {word & ~kLastFragment, (word & kLastFragment) != 0};
    return true;
  } catch (const std::exception& e) {
    throw std::runtime_error(message("Failed read fragment header. Exception: [%1]", e.what()));
  }
}

bool TcpConnectionHandler::readFragmentData(const FragmentHeader& header) {
  if (m_received->buffered().size() < header.length) sendReplies({});
  // A small record is received together with what follows it, a large one straight into its place.
  if (header.length <= kSmallRecord) m_received->require(header.length);
  const std::size_t received = m_received->take({m_stream->inputArea().data(), header.length});
  if (received < header.length) {
    log().warn("Fragment data is partially available. Expected size [%1], received size [%2]",
               header.length, received);
    return endOfStream();
  }
  m_stream->setInputSize(header.length);
  return true;
}

// What goes beyond the area is skipped, within reason: the caller gets an answer.
bool TcpConnectionHandler::readFragments(FragmentHeader header) {
  sendReplies({});
  memory::mutable_buffer room = m_stream->inputArea();
  std::size_t size = 0;
  for (bool isFirst = true;; isFirst = false) {
    if (!isFirst && !readFragmentHeader(header)) return false;
    size += header.length;
    if (size > kHopelessLength || (header.length == 0 && !header.last)) return false;
    const std::size_t fitting = std::min<std::size_t>(header.length, room.size());
    std::size_t received = m_received->take({room.data(), fitting});
    if (received == fitting) received += m_received->skip(header.length - fitting);
    if (received < header.length) return endOfStream();
    room += fitting;
    if (header.last) break;
  }
  const bool fits = size <= MemoryStream::getBufferSize();
  m_stream->setInputSize(fits ? static_cast<unsigned>(size) : kHeadOfRecord);
  if (fits) return true;
  log().warn("A record of [%1] bytes is longer than the [%2] bytes that are accepted.", size,
             MemoryStream::getBufferSize());
  m_stream->errorOccurred();
  return true;
}

bool TcpConnectionHandler::readOversizedFragment(const FragmentHeader& header) {
  log().warn("A record of [%1] bytes is longer than the [%2] bytes that are accepted.",
             header.length, MemoryStream::getBufferSize());
  if (header.length > kHopelessLength) return false;
  sendReplies({});
  std::size_t received = m_received->take({m_stream->inputArea().data(), kHeadOfRecord});
  if (received == kHeadOfRecord) received += m_received->skip(header.length - kHeadOfRecord);
  if (received < header.length) return endOfStream();
  m_stream->setInputSize(kHeadOfRecord);
  m_stream->errorOccurred();
  return true;
}

bool TcpConnectionHandler::endOfStream() const {
  log().info(m_disposed ? "Connection socket has been closed." : "Peer closed connection");
  return false;
}

// Whether another whole call can be answered without receiving anything.
bool TcpConnectionHandler::moreCallsAtHand() const {
  return m_stream->getInputDataSize() != 0 || anotherRecordAtHand();
}

bool TcpConnectionHandler::anotherRecordAtHand() const {
  const memory::const_buffer bytes = m_received->buffered();
  return bytes.size() >= kMarkSize &&
         bytes.size() - kMarkSize >= (wordAt(bytes.data()) & ~kLastFragment);
}

void TcpConnectionHandler::flush() {
  ++m_calls;
  if (auto& part = m_stream->fileInOutput()) {
    sendReplyWithFile(*part);
    m_stream->clearOutput();
    return;
  }
  const memory::const_buffer reply = m_stream->getOutputBuffer();
  const bool keepBack = reply.size() <= kSmallReply &&
                        m_replies.size() + reply.size() <= kKeptReplies && moreCallsAtHand();
  if (keepBack && m_replies.empty()) m_firstReply = Clock::now();
  if (keepBack && Clock::now() - m_firstReply < kReplyPatience) {
    m_replies.insert(m_replies.end(), reply.begin(), reply.end());
  } else {
    sendReplies(reply);
  }
  m_stream->clearOutput();
}

void TcpConnectionHandler::sendReplies(memory::const_buffer last, int flags) {
  memory::const_buffer kept(m_replies.data(), m_replies.size());
  try {
    while (kept || last) {
      std::array<iovec, 2> parts{{{const_cast<std::byte*>(kept.data()), kept.size()},
                                  {const_cast<std::byte*>(last.data()), last.size()}}};
      msghdr header{};
      header.msg_iov = parts.data();
      header.msg_iovlen = parts.size();
      const ssize_t sent = sendmsg(m_socket, &header, MSG_NOSIGNAL | flags);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0) {
        throw std::runtime_error(
            message("Failed to send data. Error: [%1]", utility::getErrnoDescription(errno)));
      }
      countSent(static_cast<std::size_t>(sent));
      const std::size_t fromKept = std::min(kept.size(), static_cast<std::size_t>(sent));
      kept += fromKept;
      last += static_cast<std::size_t>(sent) - fromKept;
    }
    m_replies.clear();
  } catch (const std::exception& e) {
    m_replies.clear();
    throw std::runtime_error(message("Failed to flush data. Exception: [%1]", e.what()));
  }
}

void TcpConnectionHandler::sendReplyWithFile(OutputFromFile& part) {
  const memory::mutable_buffer reply = m_stream->outputArea();
  sendReplies({reply.data(), part.position}, MSG_MORE);
  const int file = part.file->ReadDescriptor();
  std::uint64_t offset = part.offset;
  memory::mutable_buffer rest(reply[part.position], part.length);
  while (rest) {
    const ssize_t sent = sendFile(m_socket, file, offset, rest.size());
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) break;
    countSent(static_cast<std::size_t>(sent));
    offset += static_cast<std::uint64_t>(sent);
    rest += static_cast<std::size_t>(sent);
  }
  // What did not go by itself is read. A file that became shorter meanwhile is zeros from there on.
  memory::zero(rest);
  for (memory::mutable_buffer missing = rest; missing;) {
    const ssize_t read = pread(file, missing.data(), missing.size(), static_cast<off_t>(offset));
    if (read < 0 && errno == EINTR) continue;
    if (read < 0) {
      // The head of the reply is gone already. On the next try the file tells what is wrong.
      const int error = errno;
      part.file->DescriptorFailed();
      throw std::runtime_error(
          message("Failed to send data. Error: [%1]", utility::getErrnoDescription(error)));
    }
    if (read == 0) break;
    offset += static_cast<std::uint64_t>(read);
    missing += static_cast<std::size_t>(read);
  }
  sendReplies({rest.data(), static_cast<std::size_t>(reply.end() - rest.data())});
}

void TcpConnectionHandler::countSent(std::size_t bytes) {
  m_bytesSent += bytes;
  statistics::count(statistics::Counter::BytesSent, bytes);
}

void TcpConnectionHandler::begun() {
  statistics::count(statistics::Counter::ConnectionsAccepted);
  statistics::tell(
      {.isOpen = true, .address = m_peer.sin_addr.s_addr, .port = ntohs(m_peer.sin_port)});
}

void TcpConnectionHandler::ended() {
  using std::chrono::milliseconds;
  statistics::count(statistics::Counter::ConnectionsClosed);
  statistics::tell({.isOpen = false,
                    .address = m_peer.sin_addr.s_addr,
                    .port = ntohs(m_peer.sin_port),
                    .duration = std::chrono::duration_cast<milliseconds>(Clock::now() - m_accepted),
                    .calls = m_calls,
                    .bytesReceived = m_received->received(),
                    .bytesSent = m_bytesSent});
}

void TcpConnectionHandler::dispose() {
  const std::lock_guard lock(m_socketLock);
  m_disposed = true;
  m_socket.shutdown();
}

void TcpConnectionHandler::release() {
  const std::lock_guard lock(m_socketLock);
  m_socket.close();
  m_received.reset();
  m_replies = {};
}

}  // namespace nfslib::network
