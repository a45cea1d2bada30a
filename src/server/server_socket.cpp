#include "server/server_socket.h"

#include "common/log.h"
#include "network/address.h"
#include "server/ports.h"

#include <cerrno>
#include <stdexcept>

#include <arpa/inet.h>
#include <sys/socket.h>

namespace nfslib {

namespace {

const char* adviceFor(int error) {
  switch (error) {
    case EACCES:
      return " Ports below 1024 need root.";
    case EADDRINUSE:
      return " Stop the program that uses the port, or choose another one.";
    default:
      return "";
  }
}

// Two datagram sockets of ours could share a port unnoticed, each getting half of the calls. Port
// 111 is left out: the system's port-map service may hold it on all other addresses.
bool isTakenUnnoticed(const Listener& listener, unsigned address, unsigned port) {
  return listener.transport == Transport::Udp && listener.port != PortRole::Portmap &&
         !address::isPortUnused(port, address::str(address), SOCK_DGRAM);
}

}  // namespace

ServerSocket::ServerSocket(const Listener& listener, unsigned address, unsigned port,
                           rpc::RpcRequestProcessor& processor) {
  const bool isTcp = listener.transport == Transport::Tcp;
  const auto networkPort = htons(static_cast<unsigned short>(port));
  int error = EADDRINUSE;
  if (!isTakenUnnoticed(listener, address, port)) {
    try {
      if (isTcp) {
        m_server.emplace<network::TcpServer>(address, networkPort, processor);
      } else {
        m_server.emplace<network::UdpServer>(address, networkPort, processor);
      }
      return;
    } catch (std::exception& e) {
      error = errno;
      log().err(e);
    }
  }
  const std::string text =
      message("Cannot serve [%1] port [%2] of [%3]: [%4].%5", isTcp ? "TCP" : "UDP", port,
              address::str(address), utility::getErrnoDescription(error), adviceFor(error));
  if (error == EADDRINUSE) throw PortTaken(text);
  throw std::runtime_error(text);
}

template <class Action>
void ServerSocket::withServer(Action action) {
  if (auto* tcp = std::get_if<network::TcpServer>(&m_server)) action(*tcp);
  if (auto* udp = std::get_if<network::UdpServer>(&m_server)) action(*udp);
}

void ServerSocket::start(const bool& stop) {
  withServer([&](auto& server) { server.start(stop); });
}

void ServerSocket::stop() {
  withServer([](auto& server) { server.stop(); });
}

}  // namespace nfslib
