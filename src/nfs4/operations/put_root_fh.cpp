#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

nfs::OperationResult CPutRootFh::execute(Call& call) {
  log().dbg("Put root file handle");
  call.session().setCurrentFileSystemObject(call.service);
  return respond(call, 24, nfs::OperationResult::OK);
}

}  // namespace nfslib::nfs4::operations
