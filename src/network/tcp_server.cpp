#include "network/tcp_server.h"

#include "common/log.h"
#include "network/address.h"
#include "network/stop_flag.h"
#include "network/tcp_connection_handler.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <sys/socket.h>

namespace nfslib::network {

namespace {

constexpr int kBacklog = 128;
constexpr std::chrono::milliseconds kBackOff{100};

// The system is short of something that other connections will give back.
bool isShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

TcpServer::TcpServer(unsigned int address, unsigned short port,
                     rpc::RpcRequestProcessor& processor) try
    : Server(address, port, processor, SOCK_STREAM) {
  startListening();
} catch (const std::exception& e) {
  throw std::runtime_error(message("Failed to start TCP server. Exception: [%1]", e.what()));
}

TcpServer::~TcpServer() { stop(); }

void TcpServer::startListening() {
  if (listen(m_socket, kBacklog) != 0) {
    throw std::runtime_error(
        message("Failed to start listening. Error: [%1]", utility::getErrnoDescription(errno)));
  }
}

void TcpServer::start(const bool& stop) {
  m_acceptThread = std::thread([this, &stop] { startAcceptLoop(stop); });
}

void TcpServer::stop() {
  {
    const std::lock_guard lock(m_stopLock);
    Dispose();
  }
  m_stopped.notify_all();
  if (m_acceptThread.joinable()) m_acceptThread.join();
  m_socket.close();
}

void TcpServer::startAcceptLoop(const bool& stop) {
  Connections connections;
  try {
    acceptLoop(stop, connections);
  } catch (std::exception& e) {
    log().err(e);
  }
  // All of them are told first, so that they end side by side; destroying a holder waits for it.
  for (const auto& connection : connections) connection->getHandler()->dispose();
}

void TcpServer::acceptLoop(const bool& stop, Connections& connections) {
  while (!isSet(stop) && acceptConnection(stop, connections)) {
    std::erase_if(connections, [](const auto& connection) {
      const auto& handler = *connection->getHandler();
      if (handler.isActive()) return false;
      log().info("Removing inactive connection [%1].", address::str(handler.getRemoteAddress()));
      return true;
    });
  }
}

bool TcpServer::acceptConnection(const bool& stop, Connections& connections) {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  SocketDescriptor socket(
      accept4(m_socket, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC));
  const int error = errno;
  if (disposed()) {
    log().info("Server socket has been closed, stopping.");
    return false;
  }
  if (socket.valid()) {
    log().info("Accepted connection from [%1].", address::str(peer));
    serve(std::move(socket), peer, stop, connections);
    return true;
  }
  if (error == EINTR || error == ECONNABORTED) return true;
  if (isShortage(error)) {
    log().warn("Cannot accept a connection at the moment. Error: [%1]",
               utility::getErrnoDescription(error));
    backOff();
    return true;
  }
  throw std::runtime_error(
      message("Failed to accept connection. Error: [%1]", utility::getErrnoDescription(error)));
}

void TcpServer::serve(SocketDescriptor socket, const sockaddr_in& peer, const bool& stop,
                      Connections& connections) {
  try {
    auto handler = std::make_shared<TcpConnectionHandler>(std::move(socket), m_processor, peer);
    connections.push_back(std::make_shared<ConnectionHolder>(handler, stop));
  } catch (const std::system_error& e) {  // no thread to be had
    log().warn("Cannot serve the connection from [%1]. Error: [%2]", address::str(peer), e.what());
    backOff();
  } catch (const std::bad_alloc& e) {
    log().warn("Cannot serve the connection from [%1]. Error: [%2]", address::str(peer), e.what());
    backOff();
  }
}

void TcpServer::backOff() {
  std::unique_lock lock(m_stopLock);
  m_stopped.wait_for(lock, kBackOff, [this] { return disposed(); });
}

}  // namespace nfslib::network
