#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/changing.h"
#include "nfs3/procedures.h"

#include <string>

namespace nfslib::nfs3::procedures {

void CSymlink::execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller) {
  const DirOpArgs args = utility::readDirOpArgs(stream, service);
  const utility::Changing dir(args.dir, service);
  SetAttributes3 wanted;
  stream >> wanted;
  log().dbg("symlink: path [%1]", dir.path());
  std::string target;
  stream >> target;
  utility::checkDecoded(stream);

  utility::create(
      stream, dir, args.name,
      [&](Directory& parent) {
        const auto owner = utility::admitNew(dir, caller, wanted);
        parent.CreateSymlink(args.name, target);
        return utility::withAttributes(*parent.OpenSymlink(args.name), wanted, owner);
      },
      [&](std::string_view why) {
        log().dbg("Failed to create symlink [%1]: [%2]", dir.path() / args.name, why);
      });
}

}  // namespace nfslib::nfs3::procedures
