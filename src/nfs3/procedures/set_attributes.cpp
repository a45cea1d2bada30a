#include "common/host_failure.h"
#include "common/log.h"
#include "common/xdr_records.h"
#include "fs/entry_rights.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/changing.h"
#include "nfs3/procedures.h"

#include <optional>

namespace nfslib::nfs3::procedures {

using nfs::NfsOperationError;
using nfs::OperationResult;

namespace {

// sattrguard3: the change time that the object must have.
struct Guard {
  unsigned seconds = 0;
  unsigned nanoseconds = 0;

  bool lets(const fattr3& object) const {
    return seconds == object.changeTime && nanoseconds == object.changeNanoseconds;
  }
};

std::optional<Guard> readGuard(MemoryStream& stream) {
  bool isGuarded = false;
  stream >> isGuarded;
  if (!isGuarded) return std::nullopt;
  Guard guard;
  stream >> guard.seconds >> guard.nanoseconds;
  return guard;
}

}  // namespace

void CSetAttributes::execute(MemoryStream& stream, NfsService& service,
                             const rpc::AuthOpaque& caller) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const auto [view, path] = utility::getPath(handle, service);
  // From the host: attributes that were kept for a while might be older than what others have
  // written, and setting them would undo it.
  MetaData md = view->readMetaData(path);
  const fattr3 before = utility::getAttributes(*view, handle, md);
  log().dbg("setAttributes: path [%1]", path);
  SetAttributes3 wanted;
  stream >> wanted;
  const std::optional<Guard> guard = readGuard(stream);
  utility::checkDecoded(stream);
  const Profile& profile = service.profile();
  const nfslib::utility::Permission permission = permissionIn(*view, caller);
  utility::require(permission.toSet(path, md, wanted.change()));
  // In the classic profile a guarded change is made like any other.
  if (profile.isModern && guard && !guard->lets(before)) {
    throw NfsOperationError(OperationResult::NotSync);
  }

  const MetaData unchanged = md;
  wanted.applyTo(md);
  permission.settleMode(unchanged, md, wanted.mode.has_value());
  const OperationResult status =
      statusOfHostCall(profile, [&, &changed = view, &at = path] { changed->setMetaData(at, md); });
  // The change moved times as well; whoever asks next gets those.
  view->dropMetaData(path);
  md = wanted.resizesAlone() ? view->shownAfterResize(path, md, before.modifyTime)
                             : view->shownAfterChange(path, md);

  stream << status << WccData{PreOpAttr(before), {utility::getAttributes(*view, handle, md)}};
}

}  // namespace nfslib::nfs3::procedures
