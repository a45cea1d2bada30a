#pragma once

#include "rpc/rpc_program.h"

#include <unordered_map>

namespace nfslib::portmap {

// Transport protocols as the port mapper numbers them.
constexpr unsigned kTcp = 6;
constexpr unsigned kUdp = 17;
constexpr unsigned kPort = 111;

// One mapping: RFC 1833 section 3.1.
struct PortmapHeader {
  unsigned program = 0;
  unsigned version = 0;
  unsigned protocol = 0;
  unsigned port = 0;
};

// The port mapper (program 100000, version 2, RFC 1833 section 3) for the programs of this server.
// Its table is filled before it serves and is only read then; nothing is registered from the
// network.
class PortMapProgram : public rpc::RpcProgram {
 public:
  // Sets the port of (program, protocol). One version is told for all programs: the last one given.
  void map(unsigned int program, unsigned int port, unsigned int protocol, unsigned int version);

  rpc::RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                            const rpc::AuthOpaque& caller) override;

 private:
  rpc::RpcProgramResult getPort(MemoryStream& stream) const;
  void dump(MemoryStream& stream) const;
  unsigned findPort(unsigned program, unsigned protocol) const;
  static bool programNumberIsValid(unsigned int program);
  static void writeProgramEntry(MemoryStream& stream, const PortmapHeader& entry);

  std::unordered_map<unsigned int, std::unordered_map<unsigned int, unsigned int>> m_table;
  unsigned m_version = 0;
};

}  // namespace nfslib::portmap
