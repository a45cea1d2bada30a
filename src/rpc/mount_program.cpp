#include "rpc/mount_program.h"

#include "common/host_failure.h"
#include "common/log.h"
#include "common/xdr_records.h"
#include "server/nfs_service.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace nfslib::mount {

using nfs::OperationResult;
using rpc::RpcProgramResult;

namespace {

enum Procedure : unsigned {
  kNull = 0,
  kMount = 1,
  kDump = 2,
  kUnmount = 3,
  kUnmountAll = 4,
  kExport = 5
};
constexpr std::size_t kMaxPathLength = 1024;  // MNTPATHLEN
constexpr std::string_view kEverybody = "*";
constexpr std::array<std::string_view, kExport + 1> kNames{"NULL", "MNT",     "DUMP",
                                                           "UMNT", "UMNTALL", "EXPORT"};

}  // namespace

std::string_view MountProgram::procedureName(unsigned procedure) {
  return procedure < kNames.size() ? kNames[procedure] : "";
}

rpc::Counted MountProgram::countedAs(const rpc::RpcProgramParameters& call) const {
  using enum statistics::Table;
  const statistics::Table table =
      call.version == 1 ? Mount1 : (call.version == 2 ? Mount2 : Mount3);
  return {{table, call.procedure}, call.procedure == kMount};
}

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
    case kDump:  // section 5.2.2: nobody is listed
      if (!m_service.profile().isModern) return RpcProgramResult::ProcedureUnavailable;
      stream << false;
      return RpcProgramResult::Success;
    case kUnmountAll:  // section 5.2.4
      return m_service.profile().isModern ? RpcProgramResult::Success
                                          : RpcProgramResult::ProcedureUnavailable;
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

  NfsHandle handle;
  const OperationResult status = findHandle(dirPath, handle);
  stream << status;
  if (status != OperationResult::OK) return RpcProgramResult::Success;
  stream << handle;
  // Version 1 of the protocol (RFC 1094 appendix A) has no list of flavors.
  if (parameters.version != 1) stream << std::vector<unsigned>{rpc::AUTH_SYS};
  return RpcProgramResult::Success;
}

OperationResult MountProgram::findHandle(const std::string& path, NfsHandle& handle) const {
  const auto ask = [&] { handle = m_service.getHandle(NfsPath(path)); };
  if (!m_service.profile().isModern) {
    ask();
    return OperationResult::OK;
  }
  if (path.size() > kMaxPathLength) return OperationResult::FileNameIsTooLong;
  if (!m_service.findExport(NfsPath(path))) return OperationResult::NoEntry;
  return statusOfHostCall(m_service.profile(), ask, [&](std::string_view why) {
    log().warn("The export [%1] cannot be mounted: [%2]", path, why);
    return OperationResult::HardwareIoError;
  });
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
