#include "nfs4/operations.h"
#include "nfs4/state_references.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

// There are no delegations.
OperationResult CDelegationReturn::execute(Call& call) {
  FsObjectStateId stateId;
  call.stream >> stateId;
  checkDecoded(call);
  log().dbg("Delegation return: stateId [%1]", textOf(stateId));
  OperationResult status = statusUnlessSet(call.current());
  if (status == OperationResult::OK) status = statusOfUseless(call, stateId);
  return respond(call, 8, status);
}

}  // namespace nfslib::nfs4::operations
