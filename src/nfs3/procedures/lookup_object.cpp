#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/procedures.h"

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

void CLookupObject::execute(MemoryStream& stream, NfsService& service,
                            const rpc::AuthOpaque& caller) {
  const DirOpArgs args = utility::readDirOpArgs(stream, service);
  utility::checkDecoded(stream);
  const auto [view, path, directory] = utility::findEntry(args, service, caller);
  const MetaData md = view->getMetaData(path);
  log().dbg("lookupObject: path [%1]", path);

  const NfsHandle handle = view->getHandle(args.dir, path, md);
  const MetaData dirMd = directory ? *directory : view->getMetaData(path.getParentPath());

  stream << OperationResult::OK << handle << PostOpAttr{utility::getAttributes(*view, handle, md)}
         << PostOpAttr{utility::getAttributes(*view, args.dir, dirMd)};
}

}  // namespace nfslib::nfs3::procedures
