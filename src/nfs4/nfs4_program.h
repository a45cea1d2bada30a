#pragma once

#include "rpc/rpc_program.h"

#include <string_view>

namespace nfslib {
class NfsService;
}  // namespace nfslib

namespace nfslib::nfs {

// NFS version 4, minor versions 0 and 1: program 100003, version 4, RFC 7530 and RFC 5661.
//
// Keeps no state of its own between calls: clients and sessions are the service's, which must
// outlive it. May be run in many threads at once.
class Nfs4Program : public rpc::RpcProgram {
 public:
  static constexpr unsigned kVersion = 4;

  // `writeEnabled`: clients may change the exports.
  Nfs4Program(NfsService& service, bool writeEnabled)
      : m_service(service), m_writeEnabled(writeEnabled) {}

  // Empty for a procedure that there is not.
  static std::string_view procedureName(unsigned procedure);

  rpc::Versions versions() const override { return {kVersion, kVersion}; }
  rpc::Counted countedAs(const rpc::RpcProgramParameters& call) const override {
    return {{statistics::Table::Nfs4, call.procedure}, call.procedure != 0};
  }
  rpc::RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                            const rpc::AuthOpaque& caller) override;

 private:
  rpc::RpcProgramResult runNfs4(MemoryStream& stream, unsigned procedure,
                                const rpc::AuthOpaque& caller);
  static rpc::RpcProgramResult notImplemented(unsigned procedure);

  NfsService& m_service;
  const bool m_writeEnabled;
};

}  // namespace nfslib::nfs
