#include "nfs4/lock_requests.h"
#include "nfs4/operations.h"
#include "nfs4/owner_turn.h"
#include "nfs4/state_references.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CUnlock::execute(Call& call) {
  LockWords words;
  unsigned sequenceId = 0;
  FsObjectStateId stateId;
  call.stream >> words.type >> sequenceId >> stateId >> words.offset >> words.length;
  checkDecoded(call);
  log().dbg("Unlock: sequenceId [%1], stateId [%2], offset [%3], length [%4]", sequenceId,
            textOf(stateId), words.offset, words.length);

  return OwnerTurn(call, 14, OwnerTurn::Kind::Lock, stateId, sequenceId).run([&] {
    StateTable::RangeLock lock;
    OperationResult status = statusOfLock(call, words, lock);
    if (status == OperationResult::OK) {
      status = call.service.openFiles().unlock(referenceOf(call, stateId), lock.range, stateId);
    }
    if (status == OperationResult::OK) setCurrentStateId(call, stateId);
    return respondAlways(call, 14, status, [&] { call.stream << stateId; });
  });
}

}  // namespace nfslib::nfs4::operations
