#pragma once

#include "rpc/rpc_program.h"

namespace nfslib::nfs {

// NFS version 4: program 100003, version 4, RFC 7530 and RFC 5661. So far it answers NULL, which is
// enough for a client to find that it has to take version 3.
//
// May be run in many threads at once.
class Nfs4Program : public rpc::RpcProgram {
 public:
  static constexpr unsigned kVersion = 4;

  rpc::RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                            const rpc::AuthOpaque& caller) override;

 private:
  static rpc::RpcProgramResult notImplemented(unsigned procedure);
};

}  // namespace nfslib::nfs
