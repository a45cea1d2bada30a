#pragma once

#include "network/connection_handler.h"

namespace nfslib::network {

// All callers of one datagram socket, one call at a time: each reply goes to the sender of the
// datagram that was received last. The socket is the server's.
class UdpConnectionHandler final : public ConnectionHandler {
 public:
  // The longest payload of an IPv4 datagram: 65,535 bytes less the IP and UDP headers.
  static constexpr unsigned kLongestReply = 65'507;

  UdpConnectionHandler(int socket, rpc::RpcRequestProcessor& processor);

  void flush() override;
  void dispose() override;

 private:
  void processRequests(const bool& stop) override;
  void release() override {}
  void prepareStream(MemoryStream& stream) override { stream.limitOutput(kLongestReply); }
  // Receives one datagram into the stream; false when the socket was shut down.
  bool receive();

  const int m_socket;
  std::atomic<bool> m_disposed{false};
};

}  // namespace nfslib::network
