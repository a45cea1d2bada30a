#include "common/host_failure.h"
#include "common/log.h"
#include "common/xdr_records.h"
#include "fs/entry_name.h"
#include "fs/entry_rights.h"
#include "nfs3/arguments.h"
#include "nfs3/changing.h"
#include "nfs3/procedures.h"

#include <string_view>

namespace nfslib::nfs3::procedures {

using nfs::NfsOperationError;
using nfs::OperationResult;

namespace {

enum class Kind { Directory, Other };

void requireKind(NfsFileSystem& view, const NfsPath& path, Kind kind) {
  const bool isDirectory = isType(utility::entryMetaData(view, path), FileType::Directory);
  if (isDirectory == (kind == Kind::Directory)) return;
  throw NfsOperationError(isDirectory ? OperationResult::IsDirectory
                                      : OperationResult::NotDirectory);
}

// REMOVE and RMDIR. In the classic profile both remove what has the name, whatever it is.
void remove(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller,
            const char* line, Kind kind, OperationResult (*statusOfRefusal)(std::string_view why)) {
  const DirOpArgs args = utility::readDirOpArgs(stream, service);
  utility::checkDecoded(stream);
  const utility::Changing dir(args.dir, service);
  log().dbg(line, dir.path());

  const NfsPath path = dir.path() / args.name;
  const OperationResult status = statusOfHostCall(
      dir.profile(),
      [&] {
        if (dir.profile().isModern) {
          requireEntryName(args.name);
          utility::require(dir.permission(caller).toChangeEntries(dir.path(), dir.metaData()));
          requireKind(dir.view(), path, kind);
          utility::require(
              statusOfRemoving({dir.view(), dir.path(), dir.metaData(), args.name}, caller));
        }
        dir.view().remove(args.name, dir.path());
      },
      [&](std::string_view why) {
        log().dbg("Cannot remove file [%1]: [%2]", path, why);
        return statusOfRefusal(why);
      });
  if (status == OperationResult::OK) dir.view().recordRemoval(path);
  const WccData wcc = dir.wccData();

  stream << status << wcc;
}

}  // namespace

void CRemoveFile::execute(MemoryStream& stream, NfsService& service,
                          const rpc::AuthOpaque& caller) {
  remove(stream, service, caller, "removeFile: path [%1]", Kind::Other,
         [](std::string_view) { return OperationResult::NoEntry; });
}

// A host tells that a directory has entries by the words of its exception alone.
void CRemoveDirectory::execute(MemoryStream& stream, NfsService& service,
                               const rpc::AuthOpaque& caller) {
  remove(stream, service, caller, "removeDirectory: path [%1]", Kind::Directory,
         [](std::string_view why) {
           return why.find("not empty") != std::string_view::npos
                      ? OperationResult::DirectoryIsNotEmpty
                      : OperationResult::NoEntry;
         });
}

}  // namespace nfslib::nfs3::procedures
