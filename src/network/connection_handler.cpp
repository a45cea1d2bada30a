#include "network/connection_handler.h"

#include "common/log.h"

#include <exception>

namespace nfslib::network {

ConnectionHandler::ConnectionHandler(rpc::RpcRequestProcessor& processor, const sockaddr_in& peer)
    : m_processor(processor),
      m_rules(processor.transportRules()),
      m_stream(std::in_place),
      m_peer(peer) {}

void ConnectionHandler::handleConnection(const bool& stop) {
  bool hasBegun = false;
  try {
    begun();
    hasBegun = true;
    processRequests(stop);
  } catch (std::exception& e) {
    log().err(e);
  } catch (...) {
    // A host may throw anything; that must not end its process.
    log().err("Failed to process request. Unknown exception.");
  }
  dispose();
  if (hasBegun) ended();
  release();
  m_stream.reset();
  m_active = false;
}

void ConnectionHandler::renewFailedStream() {
  if (*m_stream) return;
  m_stream.emplace();
  prepareStream(*m_stream);
}

ConnectionHolder::ConnectionHolder(const std::shared_ptr<ConnectionHandler>& handler,
                                   const bool& stop)
    : m_handler(handler), m_thread([handler, &stop] { handler->handleConnection(stop); }) {}

ConnectionHolder::~ConnectionHolder() {
  m_handler->dispose();
  m_thread.join();
}

}  // namespace nfslib::network
