#pragma once

#include "common/nfs_handle.h"
#include "common/status.h"
#include "rpc/rpc_program.h"

#include <string>
#include <string_view>

namespace nfslib {
class NfsService;
}

namespace nfslib::mount {

// The MOUNT protocol (program 100005, version 3, RFC 1813 appendix I): hands out the root handle of
// an export and lists the exports. It keeps no list of who mounted what.
class MountProgram : public rpc::RpcProgram {
 public:
  explicit MountProgram(NfsService& service) : m_service(service) {}

  // Empty for a procedure that there is not.
  static std::string_view procedureName(unsigned procedure);

  rpc::Versions versions() const override { return {1, 3}; }
  rpc::Counted countedAs(const rpc::RpcProgramParameters& call) const override;
  // In the classic profile a path that is no export ends in the exception of NfsService::getHandle.
  rpc::RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                            const rpc::AuthOpaque& caller) override;

 private:
  rpc::RpcProgramResult mount(MemoryStream& stream, const rpc::RpcProgramParameters& parameters);
  rpc::RpcProgramResult umount(MemoryStream& stream);
  void exports(MemoryStream& stream);
  // The root handle of the export at `path`, or why there is none (mountstat3).
  nfs::OperationResult findHandle(const std::string& path, NfsHandle& handle) const;

  NfsService& m_service;
};

}  // namespace nfslib::mount
