#include "network/server.h"

#include "common/log.h"
#include "network/address.h"

#include <cerrno>
#include <stdexcept>

#include <netinet/tcp.h>
#include <sys/socket.h>

namespace nfslib::network {

namespace {

constexpr int kSocketBuffer = 1'048'576;

const char* nameOfType(int type) {
  return type == SOCK_STREAM ? "TCP" : type == SOCK_DGRAM ? "UDP" : "<unknown>";
}

[[noreturn]] void fail(const char* format) {
  throw std::runtime_error(message(format, utility::getErrnoDescription(errno)));
}

void setOption(int socket, int level, int option, int value, const char* failure) {
  if (setsockopt(socket, level, option, &value, sizeof value) != 0) fail(failure);
}

void logOption(int socket, int option, const char* format) {
  int value = 0;
  socklen_t size = sizeof value;
  if (getsockopt(socket, SOL_SOCKET, option, &value, &size) == 0) log().info(format, value);
}

}  // namespace

Server::Server(unsigned int address, unsigned short port, rpc::RpcRequestProcessor& processor,
               int type)
    : m_address(address), m_port(port), m_processor(processor) {
  log().info("Creating [%1] server on [%2].", nameOfType(type), address::str(getServerAddress()));
  try {
    createSocket(type);
    configureSocketOptions(type);
    bindSocketToServerAddress();
  } catch (const std::exception&) {
    throw std::runtime_error(message("Failed to initialize local server. Error: [%1]",
                                     utility::getErrnoDescription(errno)));
  }
}

sockaddr_in Server::getServerAddress() const {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = m_port;
  address.sin_addr.s_addr = m_address;
  return address;
}

void Server::createSocket(int type) {
  m_socket = SocketDescriptor(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
  if (!m_socket.valid()) fail("Failed to create a socket. Error: [%1]");
}

void Server::configureSocketOptions(int type) {
  setOption(m_socket, SOL_SOCKET, SO_REUSEADDR, 1,
            "Failed to set SO_REUSEADDR socket option. Error: [%1]");
  setOption(m_socket, SOL_SOCKET, SO_SNDBUF, kSocketBuffer,
            "Failed to set SO_SNDBUF socket option. Error: [%1]");
  setOption(m_socket, SOL_SOCKET, SO_RCVBUF, kSocketBuffer,
            "Failed to set SO_RCVBUF socket option. Error: [%1]");
  logOption(m_socket, SO_SNDBUF, "Socket send buffer size: [%1] bytes");
  logOption(m_socket, SO_RCVBUF, "Socket receive buffer size: [%1] bytes");
  if (type == SOCK_STREAM) {
    setOption(m_socket, IPPROTO_TCP, TCP_NODELAY, 1,
              "Failed to set TCP_NODELAY socket option. Error: [%1]");
  }
}

void Server::bindSocketToServerAddress() {
  const sockaddr_in address = getServerAddress();
  if (bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("Failed to bind socket to server address. Error: [%1]");
  }
}

void Server::Dispose() {
  m_disposed = true;
  m_socket.shutdown();
}

}  // namespace nfslib::network
