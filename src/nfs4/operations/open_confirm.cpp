#include "nfs4/operations.h"
#include "nfs4/owner_turn.h"
#include "nfs4/state_references.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult COpenConfirm::execute(Call& call) {
  FsObjectStateId stateId;
  unsigned sequenceId = 0;
  call.stream >> stateId >> sequenceId;
  checkDecoded(call);
  log().dbg("Open confirm: stateId [%1], sequenceId [%2]", textOf(stateId), sequenceId);

  OwnerTurn turn(call, 20, OwnerTurn::Kind::Open, stateId, sequenceId);
  return turn.run([&] {
    OperationResult status = statusUnlessSet(call.current());
    if (status == OperationResult::OK && turn.isConfirmed()) {
      status = statusOfUseless(call, stateId);
    } else if (status == OperationResult::OK) {
      status = call.service.openFiles().confirm(referenceOf(call, stateId));
      if (status == OperationResult::OK) turn.confirm();
    }
    return respondAlways(call, 20, status, [&] { call.stream << stateId; });
  });
}

}  // namespace nfslib::nfs4::operations
