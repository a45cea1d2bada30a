#pragma once

#include "network/connection_handler.h"
#include "network/server.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace nfslib::network {

// Listens on one address and port, and gives each connection a thread of its own. start and stop
// are called by one thread; the accept thread alone knows the connections.
class TcpServer : private Server {
 public:
  // Binds and listens. Address and port in network byte order. Throws std::runtime_error.
  TcpServer(unsigned int address, unsigned short port, rpc::RpcRequestProcessor& processor);
  ~TcpServer();

  // Starts accepting. `stop` outlives the server; once it is set, the loops end at their next turn.
  void start(const bool& stop);
  // Ends the accept loop and every connection, and returns when their threads have ended.
  void stop();

 private:
  using Connections = std::deque<std::shared_ptr<ConnectionHolder>>;

  void startListening();
  void startAcceptLoop(const bool& stop);
  void acceptLoop(const bool& stop, Connections& connections);
  // False when the loop is to end.
  bool acceptConnection(const bool& stop, Connections& connections);
  void serve(SocketDescriptor socket, const sockaddr_in& peer, const bool& stop,
             Connections& connections);
  // Waits a moment for descriptors, threads or memory to come back.
  void backOff();

  std::mutex m_stopLock;  // held only to wait for, and to tell, that the server was disposed of
  std::condition_variable m_stopped;
  std::thread m_acceptThread;
};

}  // namespace nfslib::network
