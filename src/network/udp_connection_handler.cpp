#include "network/udp_connection_handler.h"

#include "common/log.h"
#include "network/address.h"
#include "network/stop_flag.h"
#include "rpc/rpc_request_processor.h"

#include <cerrno>
#include <stdexcept>

#include <sys/socket.h>

namespace nfslib::network {

UdpConnectionHandler::UdpConnectionHandler(int socket, rpc::RpcRequestProcessor& processor)
    : ConnectionHandler(processor, {}), m_socket(socket) {
  prepareStream(*m_stream);
}

void UdpConnectionHandler::processRequests(const bool& stop) {
  try {
    while (!isSet(stop) && receive()) {
      m_processor.UdpRequestReceived(*this);
      renewFailedStream();
    }
  } catch (const std::exception& e) {
    throw std::runtime_error(message("Failed to process request. Exception: [%1]", e.what()));
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
    throw std::runtime_error(
        message("Failed to receive data. Error: [%1]", utility::getErrnoDescription(error)));
  }
  m_stream->setInputSize(static_cast<unsigned>(received));
  return true;
}

void UdpConnectionHandler::flush() {
  const memory::const_buffer reply = m_stream->getOutputBuffer();
  ssize_t sent = 0;
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
