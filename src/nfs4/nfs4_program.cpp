#include "nfs4/nfs4_program.h"

#include "common/log.h"
#include "common/status.h"
#include "common/xdr_records.h"
#include "nfs4/compound.h"

#include <exception>

namespace nfslib::nfs {

using rpc::RpcProgramResult;

namespace {

constexpr unsigned kNull = 0;
constexpr unsigned kCompound = 1;

}  // namespace

std::string_view Nfs4Program::procedureName(unsigned procedure) {
  if (procedure == kNull) return "NULL";
  return procedure == kCompound ? "COMPOUND" : "";
}

RpcProgramResult Nfs4Program::run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                                  const rpc::AuthOpaque& caller) {
  if (parameters.version != kVersion) {
    log().warn("An unexpected NFS version: [%1]", parameters.version);
    return RpcProgramResult::ProcedureUnavailable;
  }
  return runNfs4(stream, parameters.procedure, caller);
}

RpcProgramResult Nfs4Program::runNfs4(MemoryStream& stream, unsigned procedure,
                                      const rpc::AuthOpaque& caller) {
  log().dbg("NFS procedure: [%1]", procedure);
  if (procedure == kNull) return RpcProgramResult::Success;
  if (procedure != kCompound) return notImplemented(procedure);
  try {
    nfs4::procedures::CCompound::execute(stream, m_service, caller, m_writeEnabled);
  } catch (const ::OperationError& e) {
    log().warn("NFS procedure failed. Procedure: [%1]. Result: [%2].", procedure,
               nameOf(e.result()));
    stream << e.result() << false;
  } catch (std::exception& e) {
    log().errWith(e, "NFS server failed.");
    return RpcProgramResult::GarbageArguments;
  }
  return RpcProgramResult::Success;
}

RpcProgramResult Nfs4Program::notImplemented(unsigned procedure) {
  log().err("NFS procedure [%1] is not implemented.", procedure);
  return RpcProgramResult::ProcedureUnavailable;
}

}  // namespace nfslib::nfs
