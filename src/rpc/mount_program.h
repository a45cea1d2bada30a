#pragma once

#include "rpc/rpc_program.h"

namespace nfslib {
class NfsService;
}

namespace nfslib::mount {

// The MOUNT protocol (program 100005, version 3, RFC 1813 appendix I): hands out the root handle of
// an export and lists the exports. It keeps no list of who mounted what.
class MountProgram : public rpc::RpcProgram {
 public:
  explicit MountProgram(NfsService& service) : m_service(service) {}

  // A path that is no export ends in the exception of NfsService::getHandle.
  rpc::RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                            const rpc::AuthOpaque& caller) override;

 private:
  rpc::RpcProgramResult mount(MemoryStream& stream, const rpc::RpcProgramParameters& parameters);
  rpc::RpcProgramResult umount(MemoryStream& stream);
  void exports(MemoryStream& stream);

  NfsService& m_service;
};

}  // namespace nfslib::mount
