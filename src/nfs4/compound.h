#pragma once

#include "common/credential.h"
#include "common/memory_stream.h"
#include "common/status.h"
#include "nfs4/call.h"

namespace nfslib {
class NfsService;
}

namespace nfslib::nfs4::procedures {

// COMPOUND, RFC 7530 section 15.2 and RFC 5661 section 16.2: operations one after another, until
// one fails. It runs alone in its session.
struct CCompound {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller,
                      bool writeEnabled);
  // Decodes one operation and runs it; returns its status.
  static nfs::OperationResult executeNextOperation(MemoryStream& stream, NfsService& service,
                                                   const rpc::AuthOpaque& caller, bool writeEnabled,
                                                   FlowOptions& flow);

 private:
  static nfs::OperationResult executeOperation(Call& call, unsigned number);
};

}  // namespace nfslib::nfs4::procedures
