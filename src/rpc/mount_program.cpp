#include "rpc/mount_program.h"

#include "common/xdr_records.h"
#include "server/nfs_service.h"

#include <string>
#include <string_view>
#include <vector>

namespace nfslib::mount {

using rpc::RpcProgramResult;

namespace {

enum Procedure : unsigned { kNull = 0, kMount = 1, kUnmount = 3, kExport = 5 };
constexpr unsigned kStatusOk = 0;
constexpr std::string_view kEverybody = "*";

}  // namespace

RpcProgramResult MountProgram::run(MemoryStream& stream,
                                   const rpc::RpcProgramParameters& parameters,
                                   const rpc::AuthOpaque&) {
  switch (parameters.procedure) {
    case kNull:
      return RpcProgramResult::Success;
    case kMount:
      return mount(stream, parameters);
    case kUnmount:
      return umount(stream);
    case kExport:
      exports(stream);
      return RpcProgramResult::Success;
    default:
      return RpcProgramResult::ProcedureUnavailable;
  }
}

// MNT (1), RFC 1813 section 5.2.1.
RpcProgramResult MountProgram::mount(MemoryStream& stream,
                                     const rpc::RpcProgramParameters& parameters) {
  std::string dirPath;
  stream >> dirPath;
  if (!stream) return RpcProgramResult::GarbageArguments;

  stream << kStatusOk << m_service.getHandle(NfsPath(dirPath));
  // Version 1 of the protocol (RFC 1094 appendix A) has no list of flavors.
  if (parameters.version != 1) stream << std::vector<unsigned>{rpc::AUTH_SYS};
  return RpcProgramResult::Success;
}

// UMNT (3), RFC 1813 section 5.2.3: there is no list to take it from.
RpcProgramResult MountProgram::umount(MemoryStream& stream) {
  std::string dirPath;
  stream >> dirPath;
  return stream ? RpcProgramResult::Success : RpcProgramResult::GarbageArguments;
}

// EXPORT (5), RFC 1813 section 5.2.5: each export with one group.
void MountProgram::exports(MemoryStream& stream) {
  for (const NfsPath& path : m_service.getExportPaths()) {
    stream << true << path.str() << true << kEverybody << false;
  }
  stream << false;
}

}  // namespace nfslib::mount
