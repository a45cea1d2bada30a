#include "common/host_failure.h"
#include "common/log.h"
#include "common/xdr_records.h"
#include "fs/entry_rights.h"
#include "nfs3/arguments.h"
#include "nfs3/changing.h"
#include "nfs3/procedures.h"

#include <string_view>

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

void CRename::execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller) {
  const DirOpArgs from = utility::readDirOpArgs(stream, service);
  const DirOpArgs to = utility::readDirOpArgs(stream, service);
  utility::checkDecoded(stream);
  const utility::Changing fromDir(from.dir, service);
  const utility::Changing toDir(to.dir, service);
  log().dbg("rename: fromPath [%1], toPath [%2]", fromDir.path(), toDir.path());

  const NfsPath source = fromDir.path() / from.name;
  const NfsPath target = toDir.path() / to.name;
  const Profile& profile = service.profile();
  const OperationResult status = statusOfHostCall(
      profile,
      [&] {
        if (profile.isModern) {
          for (const utility::Changing* dir : {&fromDir, &toDir}) {
            utility::require(dir->permission(caller).toChangeEntries(dir->path(), dir->metaData()));
          }
          utility::entryMetaData(fromDir.view(), source);
          utility::require(
              statusOfMoving({fromDir.view(), fromDir.path(), fromDir.metaData(), from.name},
                             {toDir.view(), toDir.path(), toDir.metaData(), to.name}, caller));
        }
        const auto newParent = toDir.view().openDirectory(toDir.path());
        fromDir.view().moveEntry(from.name, fromDir.path(), newParent, to.name);
      },
      [&](std::string_view) {
        log().dbg("Failed to rename entry [%1] to [%2]", source, target);
        return OperationResult::NoEntry;
      });
  if (status == OperationResult::OK) {
    recordMove(fromDir.view(), source, toDir.view(), target);
  }
  const WccData fromWcc = fromDir.wccData();
  const WccData toWcc = toDir.wccData();

  stream << status << fromWcc << toWcc;
}

}  // namespace nfslib::nfs3::procedures
