#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CPutFileHandle::execute(Call& call, OperationResult unknown) {
  NfsHandle handle;
  call.stream >> handle;
  checkDecoded(call);
  log().dbg("Put file handle: [%1]", handle.objectId);

  const bool isSet = call.session().setCurrentFileSystemObject(call.service, handle);
  return respondAlways(call, 22, isSet ? OperationResult::OK : unknown);
}

}  // namespace nfslib::nfs4::operations
