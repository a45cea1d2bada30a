#include "network/udp_connection_handler.h"

#include "common/log.h"
#include "common/statistics.h"
#include "network/address.h"
#include "network/stop_flag.h"
#include "rpc/rpc_request_processor.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <thread>

#include <sys/socket.h>

namespace nfslib::network {

namespace {
constexpr std::chrono::milliseconds kPauseAfterFailure{10};
}

UdpConnectionHandler::UdpConnectionHandler(int socket, rpc::RpcRequestProcessor& processor)
    : ConnectionHandler(processor, {}), m_socket(socket) {
  prepareStream(*m_stream);
}

void UdpConnectionHandler::processRequests(const bool& stop) {
  while (!isSet(stop)) {
    try {
      if (!receive()) return;
      m_processor.UdpRequestReceived(*this);
    } catch (const std::exception& e) {
      std::runtime_error failure(message("Failed to process request. Exception: [%1]", e.what()));
      if (!m_rules.outlivesFailures) throw failure;
      log().err(failure);
      m_stream->clearOutput();
    }
    renewFailedStream();
  }
}

bool UdpConnectionHandler::receive() {
  const memory::mutable_buffer area = m_stream->inputArea();
  ssize_t received = 0;
  do {
    socklen_t size = sizeof m_peer;
    received = recvfrom(m_socket, area.data(), area.size(), 0, reinterpret_cast<sockaddr*>(&m_peer),
                        &size);
  } while (received < 0 && errno == EINTR);
  const int error = errno;
  if (m_disposed) {
    log().info("Server socket has been closed, stopping.");
    return false;
  }
  if (received < 0) {
    // One that lasts must not keep a processor busy.
    if (m_rules.outlivesFailures) std::this_thread::sleep_for(kPauseAfterFailure);
    throw std::runtime_error(
        message("Failed to receive data. Error: [%1]", utility::getErrnoDescription(error)));
  }
  statistics::count(statistics::Counter::BytesReceived, static_cast<std::uint64_t>(received));
  m_stream->setInputSize(static_cast<unsigned>(received));
  return true;
}

void UdpConnectionHandler::flush() {
  const memory::const_buffer reply = m_stream->getOutputBuffer();
  ssize_t sent = 0;
  if (reply.empty()) return;  // what was received is no call
  if (reply.size() > kLongestReply) {
    log().warn("A reply of [%1] bytes to [%2] does not fit a datagram and is dropped.",
               reply.size(), address::str(m_peer));
  } else {
    do {
      sent = sendto(m_socket, reply.data(), reply.size(), MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&m_peer), sizeof m_peer);
    } while (sent < 0 && errno == EINTR);
  }
  m_stream->clearOutput();
  if (sent > 0) {
    statistics::count(statistics::Counter::BytesSent, static_cast<std::uint64_t>(sent));
  }
  if (sent < 0) {
    const std::string why =
        message("Failed to send data. Error: [%1]", utility::getErrnoDescription(errno));
    throw std::runtime_error(message("Failed to flush data. Exception: [%1]", why));
  }
}

void UdpConnectionHandler::dispose() {
  m_disposed = true;
  ::shutdown(m_socket, SHUT_RDWR);
}

}  // namespace nfslib::network
