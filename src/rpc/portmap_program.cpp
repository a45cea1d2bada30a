#include "rpc/portmap_program.h"

#include "common/log.h"
#include "rpc/rpc_header.h"

#include <algorithm>
#include <array>
#include <span>
#include <string>
#include <string_view>

namespace nfslib::portmap {

using rpc::RpcProgramResult;

namespace {

enum Procedure : unsigned { kNull = 0, kGetPort = 3, kDump = 4 };
enum RpcbindProcedure : unsigned { kGetAddress = 3, kDumpAddresses = 4, kGetVersionAddress = 9 };
constexpr unsigned kOwnVersion = 2;
constexpr unsigned kLastVersion = 4;
constexpr std::string_view kOwner = "superuser";  // as who the registrations were made

struct NetworkId {
  unsigned protocol;
  std::string_view name;
};
constexpr std::array kNetworkIds{NetworkId{kTcp, "tcp"}, NetworkId{kUdp, "udp"}};
constexpr unsigned kNoPort = 0;
// RFC 1833 sections 3.2 and 2.2.1.
constexpr std::array<std::string_view, 6> kNames{"NULL",    "SET",  "UNSET",
                                                 "GETPORT", "DUMP", "CALLIT"};
constexpr std::array<std::string_view, 13> kRpcbindNames{
    "NULL",        "SET",         "UNSET",       "GETADDR",  "DUMP",        "BCAST",  "GETTIME",
    "UADDR2TADDR", "TADDR2UADDR", "GETVERSADDR", "INDIRECT", "GETADDRLIST", "GETSTAT"};

}  // namespace

std::string_view PortMapProgram::procedureName(unsigned version, unsigned procedure) {
  const std::span<const std::string_view> names =
      version > kOwnVersion ? std::span<const std::string_view>(kRpcbindNames) : kNames;
  return procedure < names.size() ? names[procedure] : "";
}

rpc::Counted PortMapProgram::countedAs(const rpc::RpcProgramParameters& call) const {
  using enum statistics::Table;
  const statistics::Table table =
      call.version <= kOwnVersion ? Portmap2 : (call.version == 3 ? Portmap3 : Portmap4);
  return {{table, call.procedure}};
}

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
  if (parameters.version > kOwnVersion) {
    return m_profile.isModern ? runRpcbind(stream, parameters.procedure)
                              : RpcProgramResult::ProgramUnavailable;
  }
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
  // In the classic profile a program out of the range is garbage, in the modern one just not
  // served.
  if (!stream || (!m_profile.isModern && !programNumberIsValid(wanted.program))) {
    return RpcProgramResult::GarbageArguments;
  }
  stream << findPort(wanted.program, wanted.protocol);
  return RpcProgramResult::Success;
}

// DUMP (4), RFC 1833 section 3.2.
void PortMapProgram::dump(MemoryStream& stream) const {
  forEachMapping([&](const PortmapHeader& mapping) { writeProgramEntry(stream, mapping); });
  stream << false;
}

template <class Visit>
void PortMapProgram::forEachMapping(const Visit& visit) const {
  const unsigned lastVersion = m_profile.isModern ? kLastVersion : kOwnVersion;
  for (unsigned version = kOwnVersion; version <= lastVersion; ++version) {
    for (const unsigned protocol : {kTcp, kUdp}) {
      visit(PortmapHeader{rpc::kPortmapProgram, version, protocol, kPort});
    }
  }
  for (const unsigned program : {rpc::kNfsProgram, rpc::kMountProgram}) {
    for (const unsigned protocol : {kTcp, kUdp}) {
      const unsigned port = findPort(program, protocol);
      if (port != kNoPort) visit(PortmapHeader{program, m_version, protocol, port});
    }
  }
}

RpcProgramResult PortMapProgram::runRpcbind(MemoryStream& stream, unsigned procedure) const {
  switch (procedure) {
    case kNull:
      return RpcProgramResult::Success;
    case kGetAddress:
    case kGetVersionAddress:
      return getAddress(stream);
    case kDumpAddresses:
      dumpAddresses(stream);
      return RpcProgramResult::Success;
    default:
      return RpcProgramResult::ProcedureUnavailable;
  }
}

// GETADDR (3), RFC 1833 section 2.2.1: the empty address for what is not served.
RpcProgramResult PortMapProgram::getAddress(MemoryStream& stream) const {
  unsigned program = 0;
  unsigned version = 0;
  std::string networkId;
  std::string address;
  std::string owner;
  stream >> program >> version >> networkId >> address >> owner;
  if (!stream) return RpcProgramResult::GarbageArguments;
  const auto* row = std::ranges::find(kNetworkIds, networkId, &NetworkId::name);
  stream << universalAddress(row == kNetworkIds.end() ? kNoPort : findPort(program, row->protocol));
  return RpcProgramResult::Success;
}

// DUMP (4), RFC 1833 section 2.2.1.
void PortMapProgram::dumpAddresses(MemoryStream& stream) const {
  forEachMapping([&](const PortmapHeader& mapping) {
    const auto* row = std::ranges::find(kNetworkIds, mapping.protocol, &NetworkId::protocol);
    stream << true << mapping.program << mapping.version << row->name
           << universalAddress(mapping.port) << kOwner;
  });
  stream << false;
}

std::string PortMapProgram::universalAddress(unsigned port) const {
  return port == kNoPort ? std::string() : m_addressOf(port);
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
