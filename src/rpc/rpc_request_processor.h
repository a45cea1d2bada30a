#pragma once

namespace nfslib::network {
class TcpConnectionHandler;
class UdpConnectionHandler;
}  // namespace nfslib::network

namespace nfslib::rpc {

// What the RPC layer asks of a transport.
struct TransportRules {
  // A record of several fragments is one call (RFC 5531 section 11). Otherwise each fragment is
  // taken for one.
  bool joinsFragments = false;
  // A datagram that cannot be received or answered ends nothing but itself.
  bool outlivesFailures = false;
};

// What a transport needs to know of the RPC layer: somebody who answers the calls in the handler's
// stream through the handler's flush(). Called from the transports' threads, several at once.
class RpcRequestProcessor {
 public:
  virtual void UdpRequestReceived(network::UdpConnectionHandler& connection) = 0;
  virtual void TcpRequestReceived(network::TcpConnectionHandler& connection) = 0;
  // Asked before the first call, and the same from then on.
  virtual TransportRules transportRules() const { return {}; }
  virtual ~RpcRequestProcessor() = default;
};

}  // namespace nfslib::rpc
