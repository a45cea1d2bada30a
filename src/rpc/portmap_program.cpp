#include "rpc/portmap_program.h"

#include "common/log.h"
#include "rpc/rpc_header.h"

namespace nfslib::portmap {

using rpc::RpcProgramResult;

namespace {

enum Procedure : unsigned { kNull = 0, kGetPort = 3, kDump = 4 };
constexpr unsigned kOwnVersion = 2;
constexpr unsigned kNoPort = 0;

}  // namespace

void PortMapProgram::map(unsigned int program, unsigned int port, unsigned int protocol,
                         unsigned int version) {
  m_table[program][protocol] = port;
  m_version = version;
}

RpcProgramResult PortMapProgram::run(MemoryStream& stream,
                                     const rpc::RpcProgramParameters& parameters,
                                     const rpc::AuthOpaque&) {
  log().info("Port map program run call: [%1]", parameters.procedure);
  // Clients ask in versions 4 and 3 first, where the same numbers mean other arguments, and come
  // down to version 2 when those are refused.
  if (parameters.version > kOwnVersion) return RpcProgramResult::ProgramUnavailable;
  switch (parameters.procedure) {
    case kNull:
      return RpcProgramResult::Success;
    case kGetPort:
      return getPort(stream);
    case kDump:
      dump(stream);
      return RpcProgramResult::Success;
    default:
      return RpcProgramResult::ProcedureUnavailable;
  }
}

// GETPORT (3), RFC 1833 section 3.2: port 0 for what is not served.
RpcProgramResult PortMapProgram::getPort(MemoryStream& stream) const {
  PortmapHeader wanted;
  stream >> wanted.program >> wanted.version >> wanted.protocol;
  stream.skipInput(sizeof wanted.port);
  if (!stream || !programNumberIsValid(wanted.program)) return RpcProgramResult::GarbageArguments;
  stream << findPort(wanted.program, wanted.protocol);
  return RpcProgramResult::Success;
}

// DUMP (4), RFC 1833 section 3.2.
void PortMapProgram::dump(MemoryStream& stream) const {
  writeProgramEntry(stream, {rpc::kPortmapProgram, kOwnVersion, kTcp, kPort});
  writeProgramEntry(stream, {rpc::kPortmapProgram, kOwnVersion, kUdp, kPort});
  for (const unsigned program : {rpc::kNfsProgram, rpc::kMountProgram}) {
    for (const unsigned protocol : {kTcp, kUdp}) {
      const unsigned port = findPort(program, protocol);
      if (port != kNoPort) writeProgramEntry(stream, {program, m_version, protocol, port});
    }
  }
  stream << false;
}

unsigned PortMapProgram::findPort(unsigned program, unsigned protocol) const {
  const auto ports = m_table.find(program);
  if (ports == m_table.end()) return kNoPort;
  const auto port = ports->second.find(protocol);
  return port == ports->second.end() ? kNoPort : port->second;
}

bool PortMapProgram::programNumberIsValid(unsigned int program) {
  return program >= 100'000 && program <= 100'009;
}

void PortMapProgram::writeProgramEntry(MemoryStream& stream, const PortmapHeader& entry) {
  stream << true << entry.program << entry.version << entry.protocol << entry.port;
}

}  // namespace nfslib::portmap
