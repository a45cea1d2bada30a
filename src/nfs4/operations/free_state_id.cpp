#include "nfs4/operations.h"
#include "nfs4/state_table.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CFreeStateId::execute(Call& call) {
  FsObjectStateId stateId;
  call.stream >> stateId;
  checkDecoded(call);
  log().dbg("Free state ID: [%1]", textOf(stateId));

  // Only CLOSE ends an open.
  const OperationResult status = call.service.openFiles().test(stateId, call.session().clientId());
  return respond(call, 45, status == OperationResult::OK ? OperationResult::LocksHeld : status);
}

}  // namespace nfslib::nfs4::operations
