#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

// There are no delegations.
OperationResult CDelegationReturn::execute(Call& call) {
  FsObjectStateId stateId;
  call.stream >> stateId;
  checkDecoded(call);
  log().dbg("Delegation return: stateId [%1]", textOf(stateId));
  const OperationResult status = statusUnlessSet(call.current());
  return respond(call, 8, status == OperationResult::OK ? OperationResult::BadStateId : status);
}

}  // namespace nfslib::nfs4::operations
