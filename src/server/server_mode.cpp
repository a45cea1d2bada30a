#include "server/server_mode.h"

#include <nfslib/nfs_mount_spec.h>

#include "common/log.h"
#include "nfs3/nfs3_program.h"
#include "nfs4/nfs4_program.h"
#include "rpc/rpc_header.h"

#include <array>
#include <stdexcept>

namespace nfslib {

namespace {

using enum PortRole;
using enum Transport;

// The port mapper names itself as well: rpcinfo asks where it is before it asks it anything else.
constexpr std::array kNfs3TcpMappings{
    PortMapping{rpc::kPortmapProgram, Tcp, Portmap},
    PortMapping{rpc::kPortmapProgram, Udp, Portmap},
    PortMapping{rpc::kMountProgram, Tcp, Mount},
    PortMapping{rpc::kNfsProgram, Tcp, Nfs},
    PortMapping{rpc::kMountProgram, Udp, Mount},
};
// Clients that look the ports up over UDP find the port mapper even beside the system's own.
constexpr std::array kNfs3TcpListeners{
    Listener{Udp, Mount},
    Listener{Tcp, Mount},
    Listener{Tcp, Nfs},
    Listener{Udp, Portmap},
};
constexpr std::array kNfs3TcpOwnPortmap{Listener{Tcp, Portmap}};

constexpr std::array kNfs3UdpMappings{
    PortMapping{rpc::kPortmapProgram, Udp, Portmap},
    PortMapping{rpc::kMountProgram, Udp, Mount},
    PortMapping{rpc::kNfsProgram, Udp, Nfs},
};
constexpr std::array kNfs3UdpListeners{
    Listener{Udp, Portmap},
    Listener{Udp, Mount},
    Listener{Udp, Nfs},
};

// Version 4 needs one port and nobody to look it up.
constexpr std::array kNfs4Mappings{PortMapping{rpc::kNfsProgram, Tcp, Nfs}};
constexpr std::array kNfs4Listeners{Listener{Tcp, Nfs}};

std::unique_ptr<rpc::RpcProgram> makeNfs4Program(NfsService& service, bool writeEnabled) {
  return std::make_unique<nfs::Nfs4Program>(service, writeEnabled);
}
std::unique_ptr<rpc::RpcProgram> makeNfs3Program(NfsService& service, bool writeEnabled) {
  return std::make_unique<nfs::Nfs3Program>(service, writeEnabled);
}

const ServerMode kNfs3Tcp{Tcp,
                          true,
                          kNfs3TcpMappings,
                          kNfs3TcpListeners,
                          kNfs3TcpOwnPortmap,
                          true,
                          makeNfs3Program,
                          "NFS3 server via TCP has been started.",
                          "NFS3 server via TCP has been stopped."};
const ServerMode kNfs3Udp{Udp,
                          true,
                          kNfs3UdpMappings,
                          kNfs3UdpListeners,
                          {},
                          false,
                          makeNfs3Program,
                          "NFS3 server via udp has started.",
                          "NFS3 server via udp has stopped."};
const ServerMode kNfs4{Tcp,
                       false,
                       kNfs4Mappings,
                       kNfs4Listeners,
                       {},
                       false,
                       makeNfs4Program,
                       "NFS4 server has been started.",
                       "NFS4 server has been stopped."};

}  // namespace

const ServerMode& modeFor(const NfsMountSpec& settings) {
  if (settings.version == 4) return kNfs4;
  if (settings.version != 3) {
    throw std::runtime_error(
        message("There is no NFS version [%1]. Ask for version 3 or 4.", settings.version));
  }
  return settings.protocol == NfsMountSpec::Protocol::udp ? kNfs3Udp : kNfs3Tcp;
}

}  // namespace nfslib
