#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

nfs::OperationResult CPutRootFh::execute(Call& call, unsigned operation) {
  log().dbg("Put root file handle");
  call.session().setCurrentFileSystemObject(call.service);
  return respond(call, operation, nfs::OperationResult::OK);
}

}  // namespace nfslib::nfs4::operations
