#include "nfs4/operations.h"
#include "nfs4/state_references.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CReleaseLockOwner::execute(Call& call) {
  StateOwner owner;
  call.stream >> owner;
  checkDecoded(call);
  log().dbg("Release lock owner: clientId [%1]", owner.clientId);

  OperationResult status = statusOfOwner(call, owner);
  if (status == OperationResult::OK) status = call.service.openFiles().releaseLockOwner(owner);
  return respond(call, 39, status);
}

}  // namespace nfslib::nfs4::operations
