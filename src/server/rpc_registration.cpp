#include "server/rpc_registration.h"

#include "common/log.h"
#include "network/address.h"
#include "rpc/rpc_header.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

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
constexpr std::array kRows{
    Row{rpc::kMountProgram, &Transports::tcp, &RpcRegistration::mountPort,
        "RPC: failed to register mount program.", "RPC: failed to unregister mount program."},
    Row{rpc::kMountProgram, &Transports::udp, &RpcRegistration::mountPort,
        "RPC: failed to register mount udp program.",
        "RPC: failed to unregister mount udp program."},
    Row{rpc::kNfsProgram, &Transports::tcp, &RpcRegistration::nfsPort,
        "RPC: failed to register nfs program.", "RPC: failed to unregister nfs program."},
};

}  // namespace

void bindRpcServices(const RpcRegistration& registration) {
  const Transports transports;
  for (const Row& row : kRows) {
    const netconfig* transport = (transports.*row.transport).get();
    const std::string text = address::rpcStr(registration.address, registration.*row.port);
    const TransportAddress address(uaddr2taddr(transport, text.c_str()));
    if (!address || !rpcb_set(row.program, registration.version, transport, address.get())) {
      log().warn(row.setFailure);
    }
  }
}

void unbindRpcServices(const RpcRegistration& registration) {
  const Transports transports;
  for (const Row& row : kRows) {
    if (!rpcb_unset(row.program, registration.version, (transports.*row.transport).get())) {
      log().warn(row.unsetFailure);
    }
  }
}

}  // namespace nfslib
