#pragma once

#include "rpc/rpc_program.h"

namespace nfslib {
class NfsService;
}  // namespace nfslib

namespace nfslib::nfs {

// NFS version 3: program 100003, version 3, RFC 1813.
//
// Keeps no state of its own between calls and may be run in many threads at once. The service must
// outlive it.
class Nfs3Program : public rpc::RpcProgram {
 public:
  static constexpr unsigned kVersion = 3;

  // `writeEnabled` decides which rights ACCESS can grant. Only in the modern profile does it refuse
  // changes by itself.
  Nfs3Program(NfsService& service, bool writeEnabled)
      : m_service(service), m_writeEnabled(writeEnabled) {}

  rpc::Versions versions() const override { return {kVersion, kVersion}; }
  bool mustRunOnce(const rpc::RpcProgramParameters& parameters) const override;
  rpc::Counted countedAs(const rpc::RpcProgramParameters& call) const override {
    return {{statistics::Table::Nfs3, call.procedure}, call.procedure != 0};
  }
  rpc::RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                            const rpc::AuthOpaque& caller) override;

 private:
  rpc::RpcProgramResult runNfs3(MemoryStream& stream, unsigned procedure,
                                const rpc::AuthOpaque& caller);
  static rpc::RpcProgramResult notImplemented(unsigned procedure);

  NfsService& m_service;
  const bool m_writeEnabled;
};

}  // namespace nfslib::nfs
