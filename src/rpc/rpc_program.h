#pragma once

#include "common/credential.h"
#include "common/memory_stream.h"
#include "common/statistics.h"

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
  SystemError = 4,         // the program failed
};

// The versions of a program that are served, the lowest and the highest.
struct Versions {
  unsigned lowest = 0;
  unsigned highest = 0xFFFF'FFFF;

  bool contain(unsigned version) const { return version >= lowest && version <= highest; }
};

// As what a call is counted, and whether its results begin with a status that is 0 for success.
struct Counted {
  statistics::Row row;
  bool hasStatus = false;
};

// One served RPC program. It chooses by version and procedure what to serve: in the classic profile
// the server checks neither, in the modern one the version.
class RpcProgram {
 public:
  virtual Versions versions() const { return {}; }
  // Whether a call that comes twice must be done once. Asked for every call.
  virtual bool mustRunOnce(const RpcProgramParameters&) const { return false; }
  virtual Counted countedAs(const RpcProgramParameters& call) const {
    return {{statistics::Table::Other, call.procedure}};
  }
  // Decodes its arguments from `stream`, which stands just behind the call header, and encodes its
  // results. May be called from several threads at once.
  virtual RpcProgramResult run(MemoryStream& stream, const RpcProgramParameters& parameters,
                               const AuthOpaque& caller) = 0;
  virtual ~RpcProgram() = default;
};

}  // namespace nfslib::rpc
