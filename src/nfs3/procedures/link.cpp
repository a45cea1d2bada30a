#include "common/host_failure.h"
#include "common/log.h"
#include "common/xdr_records.h"
#include "fs/entry_name.h"
#include "nfs3/arguments.h"
#include "nfs3/changing.h"
#include "nfs3/procedures.h"

#include <string_view>

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

void CLink::execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const DirOpArgs args = utility::readDirOpArgs(stream, service);
  utility::checkDecoded(stream);
  const auto [view, path] = utility::getPath(handle, service);
  const utility::Changing dir(args.dir, service);
  log().dbg("link: path [%1]", dir.path());
  const NfsPath& filePath = path;
  NfsFileSystem& fileView = *view;
  const NfsPath newPath = dir.path() / args.name;

  const OperationResult status = statusOfHostCall(
      service.profile(),
      [&] {
        requireEntryName(args.name);
        utility::require(dir.permission(caller).toChangeEntries(dir.path(), dir.metaData()));
        const auto parent = dir.view().openDirectory(dir.path());
        parent->Link(args.name, fileView.openFile(filePath));
      },
      [&](std::string_view why) {
        log().dbg("Cannot create link [%1] on file [%2]: [%3]", newPath, filePath, why);
        return OperationResult::NoEntry;
      });
  const MetaData md = fileView.getMetaData(filePath);
  // The handle stays good when the file loses its other names.
  if (status == OperationResult::OK && &fileView == &dir.view()) {
    fileView.getHandle(handle, newPath, md);
  }
  const WccData wcc = dir.wccData();

  stream << status << PostOpAttr{utility::getAttributes(fileView, handle, md)} << wcc;
}

}  // namespace nfslib::nfs3::procedures
