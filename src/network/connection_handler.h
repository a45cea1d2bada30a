#pragma once

#include "common/memory_stream.h"
#include "rpc/rpc_request_processor.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include <netinet/in.h>

namespace nfslib::network {

// One peer, or one datagram socket: receives calls into its stream, has them answered and sends the
// replies. handleConnection runs on a thread of its own; dispose and isActive may be called from
// others.
class ConnectionHandler {
 public:
  ConnectionHandler(rpc::RpcRequestProcessor& processor, const sockaddr_in& peer);
  virtual ~ConnectionHandler() = default;
  ConnectionHandler(const ConnectionHandler&) = delete;
  ConnectionHandler& operator=(const ConnectionHandler&) = delete;

  // Sends the reply in the stream and clears it, or keeps it back for a moment while more calls are
  // at hand. Throws std::runtime_error when the peer cannot be reached.
  virtual void flush() = 0;
  bool isActive() const { return m_active; }
  // Serves until the peer goes, an error ends it, `stop` is set or the handler is disposed. Then
  // the connection's memory and descriptor are given back. Never throws.
  void handleConnection(const bool& stop);
  // Ends the connection: whatever its thread waits for on the socket returns.
  virtual void dispose() = 0;

  MemoryStream& getStream() { return *m_stream; }
  const sockaddr_in& getRemoteAddress() const { return m_peer; }

 protected:
  virtual void processRequests(const bool& stop) = 0;
  // The thread that serves the connection begins, and ends, before it gives back what it holds.
  virtual void begun() {}
  virtual void ended() {}
  // Gives back what the connection holds.
  virtual void release() = 0;
  // A stream that failed stays failed: the next request gets a fresh one.
  void renewFailedStream();
  virtual void prepareStream(MemoryStream&) {}

  rpc::RpcRequestProcessor& m_processor;
  const rpc::TransportRules m_rules;
  std::optional<MemoryStream> m_stream;  // until the connection ends
  sockaddr_in m_peer;

 private:
  std::atomic<bool> m_active{true};
};

// A handler and the thread that runs it. The destructor disposes of the connection and joins.
class ConnectionHolder {
 public:
  ConnectionHolder(const std::shared_ptr<ConnectionHandler>& handler, const bool& stop);
  ~ConnectionHolder();
  ConnectionHolder(const ConnectionHolder&) = delete;
  ConnectionHolder& operator=(const ConnectionHolder&) = delete;

  const std::shared_ptr<ConnectionHandler>& getHandler() const { return m_handler; }

 private:
  std::shared_ptr<ConnectionHandler> m_handler;
  std::thread m_thread;
};

}  // namespace nfslib::network
