#include "nfs4/open_states.h"
#include "nfs4/operations.h"
#include "nfs4/owner_turn.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CClose::execute(Call& call) {
  unsigned sequenceId = 0;
  FsObjectStateId stateId;
  call.stream >> sequenceId >> stateId;
  checkDecoded(call);
  log().dbg("Close: sequenceId [%1], filesystem object state ID [%2]", sequenceId, textOf(stateId));

  return OwnerTurn(call, 4, OwnerTurn::Kind::Open, stateId, sequenceId).run([&] {
    OperationResult status = statusUnlessSet(call.current());
    if (status == OperationResult::OK) status = openStates(call).close(call, stateId);
    return respondAlways(call, 4, status, [&] { call.stream << stateId; });
  });
}

}  // namespace nfslib::nfs4::operations
