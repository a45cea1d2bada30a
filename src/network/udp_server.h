#pragma once

#include "network/connection_handler.h"
#include "network/server.h"

#include <memory>

namespace nfslib::network {

// Answers the calls that arrive as datagrams on one address and port, one after the other, on a
// thread of its own. start and stop are called by one thread.
class UdpServer : private Server {
 public:
  // Binds. Address and port in network byte order. Throws std::runtime_error.
  UdpServer(unsigned int address, unsigned short port, rpc::RpcRequestProcessor& processor);
  ~UdpServer();

  void start(const bool& stop);
  // Ends the receive loop and returns when its thread has ended.
  void stop();

 private:
  std::unique_ptr<ConnectionHolder> m_holder;
};

}  // namespace nfslib::network
