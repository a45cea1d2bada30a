#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/procedures.h"

#include <cstdint>

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

// A host has no way to tell its capacity, so none is reported.
void CGetDynamicFsInfo::execute(MemoryStream& stream, NfsService& service) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const auto [view, path] = utility::getPath(handle, service);
  const MetaData md = view->getMetaData(path);
  log().dbg("getDynamicFsInfo: path [%1]", path);

  constexpr std::uint64_t kBytes = 0;
  constexpr std::uint64_t kFiles = 0;
  constexpr unsigned kSecondsUnchanged = 0;
  stream << OperationResult::OK << PostOpAttr{utility::getAttributes(handle, md)}
         << kBytes              // tbytes
         << kBytes              // fbytes
         << kBytes              // abytes
         << kFiles              // tfiles
         << kFiles              // ffiles
         << kFiles              // afiles
         << kSecondsUnchanged;  // invarsec
}

}  // namespace nfslib::nfs3::procedures
