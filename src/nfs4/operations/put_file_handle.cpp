#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CPutFileHandle::execute(Call& call, OperationResult unknown) {
  NfsHandle handle;
  call.stream >> handle;
  checkDecoded(call);
  log().dbg("Put file handle: [%1]", handle.objectId);

  const bool isSet = call.session().setCurrentFileSystemObject(call.service, handle);
  const OperationResult refusal = call.session().refusalOr(unknown);
  return respondAlways(call, 22, isSet ? OperationResult::OK : refusal);
}

}  // namespace nfslib::nfs4::operations
