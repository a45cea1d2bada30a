#pragma once

#include "common/profile.h"
#include "rpc/rpc_program.h"

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

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

// The port mapper (program 100000, version 2, RFC 1833 section 3) for the programs of this server;
// in the modern profile versions 3 and 4, too (RFC 1833 section 2).
// Its table is filled before it serves and is only read then; nothing is registered from the
// network.
class PortMapProgram : public rpc::RpcProgram {
 public:
  // The universal address (RFC 5665 section 5.2.3.3) at which a port of the server is reached.
  using AddressOfPort = std::function<std::string(unsigned port)>;

  // Empty for a procedure that the version does not have.
  static std::string_view procedureName(unsigned version, unsigned procedure);

  // The classic profile, which tells no addresses.
  PortMapProgram() = default;
  PortMapProgram(const Profile& profile, AddressOfPort addressOf)
      : m_profile(profile), m_addressOf(std::move(addressOf)) {}

  // Sets the port of (program, protocol). One version is told for all programs: the last one given.
  void map(unsigned int program, unsigned int port, unsigned int protocol, unsigned int version);

  rpc::Versions versions() const override { return {2, 4}; }
  rpc::Counted countedAs(const rpc::RpcProgramParameters& call) const override;
  rpc::RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                            const rpc::AuthOpaque& caller) override;

 private:
  rpc::RpcProgramResult getPort(MemoryStream& stream) const;
  void dump(MemoryStream& stream) const;
  // Versions 3 and 4.
  rpc::RpcProgramResult runRpcbind(MemoryStream& stream, unsigned procedure) const;
  rpc::RpcProgramResult getAddress(MemoryStream& stream) const;
  void dumpAddresses(MemoryStream& stream) const;
  // Empty when there is no port.
  std::string universalAddress(unsigned port) const;
  // Calls `visit` with each mapping that a dump tells, in a fixed order.
  template <class Visit>
  void forEachMapping(const Visit& visit) const;
  unsigned findPort(unsigned program, unsigned protocol) const;
  static bool programNumberIsValid(unsigned int program);
  static void writeProgramEntry(MemoryStream& stream, const PortmapHeader& entry);

  Profile m_profile;
  AddressOfPort m_addressOf;
  std::unordered_map<unsigned int, std::unordered_map<unsigned int, unsigned int>> m_table;
  unsigned m_version = 0;
};

}  // namespace nfslib::portmap
