#pragma once

#include "network/tcp_server.h"
#include "network/udp_server.h"
#include "server/server_mode.h"

#include <stdexcept>
#include <variant>

namespace nfslib {

// One listening socket of the server, of either transport.
class ServerSocket {
 public:
  // Somebody else serves the port.
  struct PortTaken : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  // `address` in network byte order, `port` in host byte order. Throws std::runtime_error with a
  // sentence that names the port, the cause and what helps; PortTaken is one.
  ServerSocket(const Listener& listener, unsigned address, unsigned port,
               rpc::RpcRequestProcessor& processor);

  void start(const bool& stop);
  void stop();

 private:
  template <class Action>
  void withServer(Action action);

  std::variant<std::monostate, network::TcpServer, network::UdpServer> m_server;
};

}  // namespace nfslib
