#include "nfs3/nfs3_program.h"

#include "common/host_failure.h"
#include "common/log.h"
#include "common/status.h"
#include "common/xdr_records.h"
#include "nfs3/procedure_table.h"
#include "server/nfs_service.h"

#include <exception>

namespace nfslib::nfs {

using rpc::RpcProgramResult;

namespace {

// The body of a procedure whose object could not be found, or that failed otherwise: the status,
// and no attributes. What is left of the arguments is dropped, or it would be taken for the next
// call of the same record.
void writeFailure(MemoryStream& stream, OperationResult status, const nfs3::Procedure& procedure) {
  stream.skipInput(stream.getInputDataSize());
  stream << status;
  for (unsigned i = 0; i < procedure.failureFlags; ++i) stream << false;
}

// The handle alone told what was meant: an object that the host does not find is gone.
OperationResult statusByHandle(const std::exception& failure) {
  const OperationResult status = statusOfFailure(failure);
  return status == OperationResult::NoEntry ? OperationResult::InvalidFileHandle : status;
}

}  // namespace

bool Nfs3Program::mustRunOnce(const rpc::RpcProgramParameters& parameters) const {
  if (!m_writeEnabled) return false;  // then it is refused
  const nfs3::Procedure* row = nfs3::findProcedure(parameters.procedure, m_service.profile());
  return row != nullptr && row->effect == nfs3::Effect::ChangesOnce;
}

RpcProgramResult Nfs3Program::run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                                  const rpc::AuthOpaque& caller) {
  if (parameters.version != kVersion) return RpcProgramResult::ProcedureUnavailable;
  return runNfs3(stream, parameters.procedure, caller);
}

RpcProgramResult Nfs3Program::runNfs3(MemoryStream& stream, unsigned procedure,
                                      const rpc::AuthOpaque& caller) {
  log().info("Nfs procedure: [%1]", procedure);
  const Profile& profile = m_service.profile();
  const nfs3::Procedure* row = nfs3::findProcedure(procedure, profile);
  if (row == nullptr) return notImplemented(procedure);
  const unsigned resultsStart = stream.getOutputPosition();
  try {
    if (row->effect != nfs3::Effect::Reads && !m_writeEnabled) {
      throw NfsOperationError(OperationResult::ReadOnlyFileSystem);
    }
    row->execute({stream, m_service, caller, m_writeEnabled});
  } catch (const NfsOperationError& e) {
    log().dbg("NFS procedure failed. Procedure: [%1]. Result: [%2].", procedure, e.what());
    writeFailure(stream, e.result(), *row);
  } catch (std::exception& e) {
    const bool isGarbage = dynamic_cast<const UndecodableArguments*>(&e) != nullptr;
    if (!profile.isModern || isGarbage) {
      log().errWith(e, "NFS server failed.");
      return RpcProgramResult::GarbageArguments;
    }
    log().warn("NFS procedure failed. Procedure: [%1]. Error: [%2].", procedure, e.what());
    stream.seekOutput(resultsStart, SeekOrigin::Begin);  // results that were begun
    stream.truncateOutput();
    writeFailure(stream, statusByHandle(e), *row);
  }
  return RpcProgramResult::Success;
}

RpcProgramResult Nfs3Program::notImplemented(unsigned procedure) {
  log().err("NFS procedure [%1] is not implemented.", procedure);
  return RpcProgramResult::ProcedureUnavailable;
}

}  // namespace nfslib::nfs
