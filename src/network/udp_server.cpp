#include "network/udp_server.h"

#include "network/udp_connection_handler.h"

#include <sys/socket.h>

namespace nfslib::network {

UdpServer::UdpServer(unsigned int address, unsigned short port, rpc::RpcRequestProcessor& processor)
    : Server(address, port, processor, SOCK_DGRAM) {}

UdpServer::~UdpServer() { stop(); }

void UdpServer::start(const bool& stop) {
  m_holder = std::make_unique<ConnectionHolder>(
      std::make_shared<UdpConnectionHandler>(m_socket, m_processor), stop);
}

void UdpServer::stop() {
  m_holder.reset();
  m_socket.close();
}

}  // namespace nfslib::network
