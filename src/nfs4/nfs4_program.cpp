#include "nfs4/nfs4_program.h"

#include "common/log.h"

namespace nfslib::nfs {

using rpc::RpcProgramResult;

RpcProgramResult Nfs4Program::run(MemoryStream&, const rpc::RpcProgramParameters& parameters,
                                  const rpc::AuthOpaque&) {
  if (parameters.version != kVersion) {
    log().warn("An unexpected NFS version: [%1]", parameters.version);
    return RpcProgramResult::ProcedureUnavailable;
  }
  log().dbg("NFS procedure: [%1]", parameters.procedure);
  constexpr unsigned kNull = 0;
  return parameters.procedure == kNull ? RpcProgramResult::Success
                                       : notImplemented(parameters.procedure);
}

RpcProgramResult Nfs4Program::notImplemented(unsigned procedure) {
  log().err("NFS procedure [%1] is not implemented.", procedure);
  return RpcProgramResult::ProcedureUnavailable;
}

}  // namespace nfslib::nfs
