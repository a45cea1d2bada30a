#pragma once

namespace nfslib::network {
class TcpConnectionHandler;
class UdpConnectionHandler;
}  // namespace nfslib::network

namespace nfslib::rpc {

// What a transport needs to know of the RPC layer: somebody who answers the calls in the handler's
// stream through the handler's flush(). Called from the transports' threads, several at once.
class RpcRequestProcessor {
 public:
  virtual void UdpRequestReceived(network::UdpConnectionHandler& connection) = 0;
  virtual void TcpRequestReceived(network::TcpConnectionHandler& connection) = 0;
  virtual ~RpcRequestProcessor() = default;
};

}  // namespace nfslib::rpc
