#include "nfs3/nfs3_program.h"

#include "common/log.h"
#include "common/status.h"
#include "common/xdr_records.h"
#include "nfs3/procedure_table.h"

#include <exception>

namespace nfslib::nfs {

using rpc::RpcProgramResult;

namespace {

// The failure body of every procedure whose object could not be found: the status, and no
// attributes. What is left of the arguments is dropped, or it would be taken for the next call of
// the same record.
void writeShortFailure(MemoryStream& stream, OperationResult status) {
  stream.skipInput(stream.getInputDataSize());
  stream << status << false;
}

}  // namespace

RpcProgramResult Nfs3Program::run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                                  const rpc::AuthOpaque& caller) {
  if (parameters.version != kVersion) return RpcProgramResult::ProcedureUnavailable;
  return runNfs3(stream, parameters.procedure, caller);
}

RpcProgramResult Nfs3Program::runNfs3(MemoryStream& stream, unsigned procedure,
                                      const rpc::AuthOpaque& caller) {
  log().info("Nfs procedure: [%1]", procedure);
  const nfs3::Procedure* row = nfs3::findProcedure(procedure);
  if (row == nullptr) return notImplemented(procedure);
  try {
    row->execute({stream, m_service, caller, m_writeEnabled});
  } catch (const NfsOperationError& e) {
    log().dbg("NFS procedure failed. Procedure: [%1]. Result: [%2].", procedure, e.what());
    writeShortFailure(stream, e.result());
  } catch (std::exception& e) {
    log().errWith(e, "NFS server failed.");
    return RpcProgramResult::GarbageArguments;
  }
  return RpcProgramResult::Success;
}

RpcProgramResult Nfs3Program::notImplemented(unsigned procedure) {
  log().err("NFS procedure [%1] is not implemented.", procedure);
  return RpcProgramResult::ProcedureUnavailable;
}

}  // namespace nfslib::nfs
