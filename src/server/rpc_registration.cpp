#include "server/rpc_registration.h"

#include "common/log.h"
#include "network/address.h"
#include "network/socket_descriptor.h"
#include "rpc/portmap_program.h"
#include "rpc/rpc_header.h"
#include "server/ports.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

// The order is TI-RPC's own.
// clang-format off
#include <rpc/rpc.h>
#include <rpc/rpcb_clnt.h>
#include <netconfig.h>
// clang-format on

namespace nfslib {

namespace {

struct FreeConfig {
  void operator()(netconfig* entry) const { freenetconfigent(entry); }
};
using Config = std::unique_ptr<netconfig, FreeConfig>;

// TI-RPC on Linux has no netdir_free: the buffer is in two pieces.
struct FreeAddress {
  void operator()(netbuf* buffer) const {
    std::free(buffer->buf);
    std::free(buffer);
  }
};
using TransportAddress = std::unique_ptr<netbuf, FreeAddress>;

Config getConfig(const char* name, const char* failure) {
  errno = 0;
  Config entry(getnetconfigent(name));
  if (!entry) throw std::runtime_error(message(failure, utility::getErrnoDescription(errno)));
  return entry;
}

struct Transports {
  Config tcp = getConfig("tcp", "Cannot get netconfig entry for TCP: [%1]");
  Config udp = getConfig("udp", "Cannot get netconfig entry for UDP: [%1]");
};

// What is registered: one line each.
struct Row {
  unsigned program;
  Config Transports::*transport;
  unsigned RpcRegistration::*port;
  const char* setFailure;
  const char* unsetFailure;
};
constexpr std::array<Row, RpcRegistration::kRows> kRows{
    Row{rpc::kMountProgram, &Transports::tcp, &RpcRegistration::mountPort,
        "RPC: failed to register mount program.", "RPC: failed to unregister mount program."},
    Row{rpc::kMountProgram, &Transports::udp, &RpcRegistration::mountPort,
        "RPC: failed to register mount udp program.",
        "RPC: failed to unregister mount udp program."},
    Row{rpc::kNfsProgram, &Transports::tcp, &RpcRegistration::nfsPort,
        "RPC: failed to register nfs program.", "RPC: failed to unregister nfs program."},
};

// The port that the service names for the program, by PMAPPROC_GETPORT (RFC 1833 section 3.2); 0
// when it names none or does not answer in a moment.
unsigned registeredPort(unsigned program, unsigned version, unsigned protocol) {
  constexpr unsigned kXid = 1;
  constexpr unsigned kCallSize = 14 * 4;
  const timeval patience{0, 500'000};
  const network::SocketDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  sockaddr_in service{};
  service.sin_family = AF_INET;
  service.sin_port = htons(portmap::kPort);
  service.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket, reinterpret_cast<const sockaddr*>(&service), sizeof service) != 0) return 0;
  std::array<std::uint32_t, 15> call{0x8000'0000U | kCallSize,
                                     kXid,
                                     0,
                                     2,
                                     rpc::kPortmapProgram,
                                     2,
                                     3,
                                     0,
                                     0,
                                     0,
                                     0,
                                     program,
                                     version,
                                     protocol,
                                     0};
  for (std::uint32_t& word : call) word = htonl(word);
  if (send(socket, call.data(), sizeof call, MSG_NOSIGNAL) != sizeof call) return 0;
  // The mark, then xid, REPLY, accepted, an empty verifier, success, and the port.
  std::array<std::uint32_t, 8> reply{};
  if (recv(socket, reply.data(), sizeof reply, MSG_WAITALL) != sizeof reply) return 0;
  return ntohl(reply[1]) == kXid && reply[6] == 0 ? ntohl(reply[7]) : 0;
}

// Whether what keeps our registration out is that of a server which is gone: one that was killed
// takes nothing back.
bool isAbandoned(const Row& row, unsigned version, const netconfig* transport) {
  const bool isUdp = transport->nc_semantics == NC_TPI_CLTS;
  const unsigned port = registeredPort(row.program, version, isUdp ? portmap::kUdp : portmap::kTcp);
  return port != 0 && address::isPortUnused(port, "0.0.0.0", isUdp ? SOCK_DGRAM : SOCK_STREAM);
}

}  // namespace

void bindRpcServices(RpcRegistration& registration) {
  const Transports transports;
  const unsigned version = registration.version;
  for (std::size_t i = 0; i < kRows.size(); ++i) {
    const Row& row = kRows[i];
    const netconfig* transport = (transports.*row.transport).get();
    const std::string text = address::rpcStr(registration.address, registration.*row.port);
    const TransportAddress address(uaddr2taddr(transport, text.c_str()));
    const auto set = [&] {
      return address && rpcb_set(row.program, version, transport, address.get());
    };
    bool& isSet = registration.isSet[i];
    isSet = set();
    if (!isSet && isAbandoned(row, version, transport)) {
      rpcb_unset(row.program, version, transport);
      isSet = set();
    }
    if (!isSet) log().warn(row.setFailure);
  }
}

void unbindRpcServices(const RpcRegistration& registration) {
  const Transports transports;
  for (std::size_t i = 0; i < kRows.size(); ++i) {
    const Row& row = kRows[i];
    if (!registration.isSet[i]) continue;  // it belongs to another server
    if (!rpcb_unset(row.program, registration.version, (transports.*row.transport).get())) {
      log().warn(row.unsetFailure);
    }
  }
}

}  // namespace nfslib
