#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/changing.h"
#include "nfs3/procedures.h"

namespace nfslib::nfs3::procedures {

namespace {

// createmode3. Whether a name that exists is an error is up to the host in all of them.
enum CreateMode : unsigned { kUnchecked = 0, kGuarded = 1, kExclusive = 2 };

}  // namespace

void CCreateFile::execute(MemoryStream& stream, NfsService& service) {
  const DirOpArgs args = utility::readDirOpArgs(stream, service);
  unsigned mode = 0;
  stream >> mode;
  SetAttributes3 wanted;
  FixedOpaque<8> verifier;  // createverf3: not kept, a repeated exclusive create meets its own file
  if (mode == kExclusive) {
    if (stream.getInputDataSize() < verifier.bytes.size()) stream.errorOccurred();
    stream >> verifier;
  } else if (mode == kUnchecked || mode == kGuarded) {
    stream >> wanted;
  } else {
    stream.errorOccurred();
  }
  utility::checkDecoded(stream);
  const utility::Changing dir(args.dir, service);
  log().dbg("createFile: in path [%1], mode [%2]", dir.path(), mode);

  utility::create(
      stream, dir, args.name,
      [&](Directory& parent) {
        const auto file = parent.CreateFile(args.name);
        return mode == kExclusive ? file->GetMetaData() : utility::withAttributes(*file, wanted);
      },
      [&](std::string_view why) {
        log().dbg("Failed to create file [%1] in directory [%2]: [%3]", args.name, dir.path(), why);
      });
}

}  // namespace nfslib::nfs3::procedures
