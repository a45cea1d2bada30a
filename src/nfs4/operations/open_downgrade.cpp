#include "nfs4/open_states.h"
#include "nfs4/operations.h"
#include "nfs4/owner_turn.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult COpenDowngrade::execute(Call& call) {
  FsObjectStateId stateId;
  unsigned sequenceId = 0;
  OpenStates::Request request;
  call.stream >> stateId >> sequenceId >> request.access >> request.deny;
  checkDecoded(call);
  log().dbg("Open downgrade: stateId [%1], access [%2], deny [%3]", textOf(stateId), request.access,
            request.deny);

  return OwnerTurn(call, 21, OwnerTurn::Kind::Open, stateId, sequenceId).run([&] {
    OperationResult status = statusUnlessSet(call.current());
    if (status == OperationResult::OK) {
      status = openStates(call).downgrade(call, request, stateId);
    }
    return respondAlways(call, 21, status, [&] { call.stream << stateId; });
  });
}

}  // namespace nfslib::nfs4::operations
