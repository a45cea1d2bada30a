#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/limits.h"
#include "nfs3/procedures.h"

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

namespace {

constexpr bool kNamesAreNotCut = true;
constexpr bool kChownRestricted = true;
constexpr bool kCaseInsensitive = false;
constexpr bool kCasePreserving = true;

}  // namespace

void CGetPathConfiguration::execute(MemoryStream& stream, NfsService& service) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const auto [view, path] = utility::getPath(handle, service);
  const MetaData md = view->getMetaData(path);
  log().dbg("getPathConfiguration: path [%1]", path);

  stream << OperationResult::OK << PostOpAttr{utility::getAttributes(*view, handle, md)}
         << kMaxLinks         // linkmax
         << kMaxNameLength    // name_max
         << kNamesAreNotCut   // no_trunc
         << kChownRestricted  // chown_restricted
         << kCaseInsensitive << kCasePreserving;
}

}  // namespace nfslib::nfs3::procedures
