#pragma once

#include <array>
#include <cstddef>

// Registration of the MOUNT and NFS programs with the system's port-map service, through TI-RPC
// (RFC 1833), so that clients which ask there find them. Needs the service's local transport.
namespace nfslib {

struct RpcRegistration {
  unsigned address = 0;  // IPv4, network byte order
  unsigned nfsPort = 0;  // host byte order, as the next
  unsigned mountPort = 0;
  unsigned version = 0;  // of NFS; told for both programs

  static constexpr std::size_t kRows = 3;
  std::array<bool, kRows> isSet{};  // what was registered, and is to be taken back
};

// Registers NFS over TCP and MOUNT over TCP and UDP, in the place of what a server that is gone has
// left. A registration that the service refuses, as it does while another server has it, is logged;
// a system without the transports throws std::runtime_error.
void bindRpcServices(RpcRegistration& registration);
// Takes them back. Logs and throws as above.
void unbindRpcServices(const RpcRegistration& registration);

}  // namespace nfslib
