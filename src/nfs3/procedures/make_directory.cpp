#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/changing.h"
#include "nfs3/procedures.h"

namespace nfslib::nfs3::procedures {

void CMakeDirectory::execute(MemoryStream& stream, NfsService& service,
                             const rpc::AuthOpaque& caller) {
  const DirOpArgs args = utility::readDirOpArgs(stream, service);
  SetAttributes3 wanted;
  stream >> wanted;
  utility::checkDecoded(stream);
  const utility::Changing dir(args.dir, service);
  log().dbg("makeDirectory: path [%1]", dir.path());

  utility::create(
      stream, dir, args.name,
      [&](Directory& parent) {
        const auto owner = utility::admitNew(dir, caller, wanted);
        return utility::withAttributes(*parent.CreateSubdir(args.name), wanted, owner);
      },
      [&](std::string_view why) {
        log().dbg("Failed to create subdirectory [%1]: [%2]", dir.path() / args.name, why);
      });
}

}  // namespace nfslib::nfs3::procedures
