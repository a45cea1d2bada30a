#pragma once

#include "common/credential.h"
#include "common/memory_stream.h"

namespace nfslib::rpc {

// The call's version and procedure.
struct RpcProgramParameters {
  unsigned version = 0;
  unsigned procedure = 0;
};

// How a program's `run` ended. For all but success the server discards whatever results were
// written.
enum class RpcProgramResult : unsigned {
  Success = 0,
  GarbageArguments = 1,
  ProcedureUnavailable = 2,
  ProgramUnavailable = 3,  // not in the version that the call asks for
};

// One served RPC program. It chooses by version and procedure what to serve: the server checks
// neither.
class RpcProgram {
 public:
  // Decodes its arguments from `stream`, which stands just behind the call header, and encodes its
  // results. May be called from several threads at once.
  virtual RpcProgramResult run(MemoryStream& stream, const RpcProgramParameters& parameters,
                               const AuthOpaque& caller) = 0;
  virtual ~RpcProgram() = default;
};

}  // namespace nfslib::rpc
