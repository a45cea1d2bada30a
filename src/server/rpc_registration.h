#pragma once

// Registration of the MOUNT and NFS programs with the system's port-map service, through TI-RPC
// (RFC 1833), so that clients which ask there find them. Needs the service's local transport.
namespace nfslib {

struct RpcRegistration {
  unsigned address = 0;  // IPv4, network byte order
  unsigned nfsPort = 0;  // host byte order, as the next
  unsigned mountPort = 0;
  unsigned version = 0;  // of NFS; told for both programs
};

// Registers NFS over TCP and MOUNT over TCP and UDP. A registration that the service refuses is
// logged; a system without the transports throws std::runtime_error.
void bindRpcServices(const RpcRegistration& registration);
// Takes them back. Logs and throws as above.
void unbindRpcServices(const RpcRegistration& registration);

}  // namespace nfslib
