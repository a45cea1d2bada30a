#include "nfs4/operations.h"
#include "nfs4/state_table.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CFreeStateId::execute(Call& call) {
  FsObjectStateId stateId;
  call.stream >> stateId;
  checkDecoded(call);
  log().dbg("Free state ID: [%1]", textOf(stateId));

  const OperationResult status = call.service.openFiles().free(stateId, call.session().clientId());
  return respond(call, 45, status);
}

}  // namespace nfslib::nfs4::operations
