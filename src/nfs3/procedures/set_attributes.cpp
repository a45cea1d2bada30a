#include "common/host_failure.h"
#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/procedures.h"

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

namespace {

// sattrguard3. The client's ctime is not compared: a guarded change is made like any other.
void skipGuard(MemoryStream& stream) {
  bool isGuarded = false;
  unsigned seconds = 0;
  unsigned nanoseconds = 0;
  stream >> isGuarded;
  if (isGuarded) stream >> seconds >> nanoseconds;
}

}  // namespace

void CSetAttributes::execute(MemoryStream& stream, NfsService& service) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const auto [view, path] = utility::getPath(handle, service);
  // From the host: attributes that were kept for a while might be older than what others have
  // written, and setting them would undo it.
  const MetaData before = view->readMetaData(path);
  log().dbg("setAttributes: path [%1]", path);
  SetAttributes3 wanted;
  stream >> wanted;
  skipGuard(stream);
  utility::checkDecoded(stream);

  MetaData md = before;
  wanted.applyTo(md);
  const OperationResult status =
      statusOfHostCall([&, &changed = view, &at = path] { changed->setMetaData(at, md); });
  // The change moved times as well; whoever asks next gets those.
  view->dropMetaData(path);

  stream << status
         << WccData{PreOpAttr(utility::getAttributes(handle, before)),
                    {utility::getAttributes(handle, md)}};
}

}  // namespace nfslib::nfs3::procedures
