#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CSaveFileHandle::execute(Call& call) {
  log().dbg("Save file handle");
  const OperationResult status = statusUnlessSet(call.current());
  if (status == OperationResult::OK) call.session().saveCurrentFileSystemObject();
  return respond(call, 32, status);
}

}  // namespace nfslib::nfs4::operations
