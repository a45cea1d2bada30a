#pragma once

#include "rpc/rpc_program.h"

#include <memory>
#include <span>

namespace nfslib {

class NfsService;
struct NfsMountSpec;

// Which of the server's ports.
enum class PortRole { Mount, Nfs, Portmap };
enum class Transport { Tcp, Udp };

// One socket that the server listens on. Every socket answers every program.
struct Listener {
  Transport transport;
  PortRole port;
};

// One line of the port mapper's table.
struct PortMapping {
  unsigned program;
  Transport transport;
  PortRole port;
};

// Everything in which the ways of serving differ.
struct ServerMode {
  Transport transport;  // that of the NFS program; free ports are searched for it
  bool hasMountProgram;
  std::span<const PortMapping> mappings;
  std::span<const Listener> listeners;
  // What is served besides while the system runs no port-map service of its own.
  std::span<const Listener> ownPortmapListeners;
  // Whether clients look the ports up at the system's port-map service when it runs.
  bool registersWithSystem;
  std::unique_ptr<rpc::RpcProgram> (*makeNfsProgram)(NfsService& service, bool writeEnabled);
  const char* started;  // log lines
  const char* stopped;
};

// The mode that the settings ask for. A version that is not served throws std::runtime_error.
const ServerMode& modeFor(const NfsMountSpec& settings);

}  // namespace nfslib
