#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/procedures.h"

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

// The one procedure whose attributes have no attributes_follow in front.
void CGetAttributes::execute(MemoryStream& stream, NfsService& service) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const auto [view, path] = utility::getPath(handle, service);
  const MetaData md = view->getMetaData(path);
  log().dbg("getAttributes: path [%1]", path);

  stream << OperationResult::OK << utility::getAttributes(*view, handle, md);
}

}  // namespace nfslib::nfs3::procedures
