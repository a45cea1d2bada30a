#include "common/log.h"
#include "common/status.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/changing.h"
#include "nfs3/procedures.h"

#include <cstddef>
#include <cstdint>

namespace nfslib::nfs3::procedures {

using nfs::NfsOperationError;
using nfs::OperationResult;

namespace {

// createmode3. In the classic profile it is up to the host in all of them whether a name that
// exists is an error.
enum CreateMode : unsigned { kUnchecked = 0, kGuarded = 1, kExclusive = 2 };

// An exclusive create leaves its verifier in the times of the file, by which a call that is
// repeated knows its own file, until the client sets them (RFC 1813 section 3.3.8). The highest
// bits are left out: not every file system keeps times beyond 2038.
SetAttributes3 attributesFor(const FixedOpaque<8>& verifier) {
  using enum SetAttributes3::TimeHow;
  const auto seconds = [&](std::size_t from) {
    std::uint32_t word = 0;
    for (std::size_t i = from; i < from + sizeof word; ++i) {
      word = word << 8U | std::to_integer<std::uint32_t>(verifier.bytes[i]);
    }
    return word & 0x7FFF'FFFF;
  };
  SetAttributes3 kept;
  kept.accessTime.how = kept.modifyTime.how = ToClientTime;
  kept.accessTime.seconds = seconds(0);
  kept.modifyTime.seconds = seconds(4);
  return kept;
}

// What a create that may meet its name makes of the entry that is there.
MetaData takeExisting(const utility::Changing& dir, const DirEntry& entry, CreateMode mode,
                      const SetAttributes3& wanted, const rpc::AuthOpaque& caller) {
  const MetaData& md = entry.metaData;
  const utility::Permission permission = dir.permission(caller);
  utility::require(permission.toSearch(dir.path(), dir.metaData()));
  if (!isType(md, FileType::Regular)) throw NfsOperationError(OperationResult::FileExist);
  if (mode == kExclusive) {
    const bool isOwn = md.size == 0 && md.accessTime == wanted.accessTime.seconds &&
                       md.modifyTime == wanted.modifyTime.seconds;
    if (!isOwn) throw NfsOperationError(OperationResult::FileExist);
    return md;
  }
  // The other attributes are for a file that is made.
  SetAttributes3 resized;
  resized.size = wanted.size;
  if (!resized.size) return md;
  const NfsPath path = dir.path() / entry.name;
  utility::require(permission.toWrite(path, md));
  MetaData changed = md;
  resized.applyTo(changed);
  dir.view().setMetaData(path, changed);
  return dir.view().shownAfterResize(path, changed, md.modifyTime);
}

}  // namespace

void CCreateFile::execute(MemoryStream& stream, NfsService& service,
                          const rpc::AuthOpaque& caller) {
  const DirOpArgs args = utility::readDirOpArgs(stream, service);
  unsigned mode = 0;
  stream >> mode;
  SetAttributes3 wanted;
  FixedOpaque<8> verifier;  // createverf3
  if (mode == kExclusive) {
    if (stream.getInputDataSize() < verifier.bytes.size()) stream.errorOccurred();
    stream >> verifier;
    // The classic profile does not keep it: a repeated call meets its own file.
    if (service.profile().isModern) wanted = attributesFor(verifier);
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
        if (dir.profile().isModern && mode != kGuarded) {
          const auto existing = parent.TryGetEntryByName(args.name);
          if (existing) return takeExisting(dir, *existing, CreateMode{mode}, wanted, caller);
        }
        const auto owner = utility::admitNew(dir, caller, wanted);
        const auto file = parent.CreateFile(args.name);
        if (mode == kExclusive && !dir.profile().isModern) return file->GetMetaData();
        return utility::withAttributes(*file, wanted, owner);
      },
      [&](std::string_view why) {
        log().dbg("Failed to create file [%1] in directory [%2]: [%3]", args.name, dir.path(), why);
      });
}

}  // namespace nfslib::nfs3::procedures
