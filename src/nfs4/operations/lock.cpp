#include "nfs4/lock_requests.h"
#include "nfs4/operations.h"
#include "nfs4/owner_turn.h"
#include "nfs4/state_references.h"

#include <optional>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

// The locker4 of the arguments is one of two: an open and an owner that may be new to the file, or
// locks that the owner has there already.
struct Arguments {
  LockWords lock;
  bool reclaim = false;
  FsObjectStateId stateId;           // of the open, or of the locks
  std::uint32_t openSequenceId = 0;  // with an owner
  std::uint32_t lockSequenceId = 0;
  std::optional<StateOwner> owner;
};

Arguments readArguments(Call& call) {
  Arguments args;
  bool isNew = false;
  call.stream >> args.lock.type >> args.reclaim >> args.lock.offset >> args.lock.length >> isNew;
  if (isNew) {
    call.stream >> args.openSequenceId >> args.stateId >> args.lockSequenceId >>
        args.owner.emplace();
  } else {
    call.stream >> args.stateId >> args.lockSequenceId;
  }
  return args;
}

OperationResult answer(Call& call, Arguments& args) {
  StateTable::RangeLock lock;
  LockDenied denied;
  FsObjectStateId stateId;
  OperationResult status = statusOfLock(call, args.lock, lock);
  // What was locked before the server was started anew is not known here.
  if (status == OperationResult::OK && args.reclaim) status = OperationResult::NoGrace;
  if (status == OperationResult::OK && args.owner) status = statusOfOwner(call, *args.owner);
  if (status == OperationResult::OK) {
    status = call.service.openFiles().lock(referenceOf(call, args.stateId), args.owner, lock,
                                           stateId, denied);
  }
  if (status == OperationResult::OK) setCurrentStateId(call, stateId);
  return respondToLock(call, 12, status, denied, [&] { call.stream << stateId; });
}

}  // namespace

OperationResult CLock::execute(Call& call) {
  Arguments args = readArguments(call);
  checkDecoded(call);
  log().dbg("Lock: type [%1], offset [%2], length [%3], stateId [%4], new owner [%5]",
            args.lock.type, args.lock.offset, args.lock.length, textOf(args.stateId),
            args.owner ? "true" : "false");

  using Kind = OwnerTurn::Kind;
  const auto work = [&] { return answer(call, args); };
  if (!args.owner) {
    return OwnerTurn(call, 12, Kind::Lock, args.stateId, args.lockSequenceId).run(work);
  }
  // Both owners act.
  OwnerTurn opener(call, 12, Kind::Open, args.stateId, args.openSequenceId);
  return opener.run(
      [&] { return OwnerTurn(call, 12, Kind::Lock, *args.owner, args.lockSequenceId).run(work); });
}

}  // namespace nfslib::nfs4::operations
