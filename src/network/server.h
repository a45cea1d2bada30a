#pragma once

#include "network/socket_descriptor.h"

#include <atomic>

#include <netinet/in.h>

namespace nfslib::rpc {
class RpcRequestProcessor;
}

namespace nfslib::network {

// A bound server socket. Address and port are in network byte order, as they go into the socket
// address.
class Server {
 public:
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

 protected:
  // `type` is SOCK_STREAM or SOCK_DGRAM. Throws std::runtime_error naming the step that failed.
  Server(unsigned int address, unsigned short port, rpc::RpcRequestProcessor& processor, int type);
  ~Server() = default;

  sockaddr_in getServerAddress() const;
  // Wakes the thread that waits on the socket and tells it to end; the descriptor stays open for
  // it.
  void Dispose();
  // Whether Dispose was called: what a socket call that then returns means.
  bool disposed() const { return m_disposed; }

  const unsigned int m_address;
  const unsigned short m_port;
  SocketDescriptor m_socket;
  rpc::RpcRequestProcessor& m_processor;

 private:
  void createSocket(int type);
  void configureSocketOptions(int type);
  void bindSocketToServerAddress();

  std::atomic<bool> m_disposed{false};
};

}  // namespace nfslib::network
