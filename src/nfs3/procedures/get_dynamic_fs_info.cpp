#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/procedures.h"

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

void CGetDynamicFsInfo::execute(MemoryStream& stream, NfsService& service) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const auto [view, path] = utility::getPath(handle, service);
  const MetaData md = view->getMetaData(path);
  log().dbg("getDynamicFsInfo: path [%1]", path);

  // Zeros where there is nothing to tell.
  const FileSystemStatistics told = view->statistics().value_or(FileSystemStatistics{});
  constexpr unsigned kSecondsUnchanged = 0;
  stream << OperationResult::OK << PostOpAttr{utility::getAttributes(*view, handle, md)}
         << told.totalBytes      // tbytes
         << told.freeBytes       // fbytes
         << told.availableBytes  // abytes
         << told.totalFiles      // tfiles
         << told.freeFiles       // ffiles
         << told.availableFiles  // afiles
         << kSecondsUnchanged;   // invarsec
}

}  // namespace nfslib::nfs3::procedures
