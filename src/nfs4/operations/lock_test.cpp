#include "nfs4/lock_requests.h"
#include "nfs4/operations.h"
#include "nfs4/state_references.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CLockTest::execute(Call& call) {
  LockWords words;
  StateOwner owner;
  call.stream >> words.type >> words.offset >> words.length >> owner;
  checkDecoded(call);
  log().dbg("Test lock: type [%1], offset [%2], length [%3]", words.type, words.offset,
            words.length);

  StateTable::RangeLock lock;
  LockDenied denied;
  OperationResult status = statusOfLock(call, words, lock);
  if (status == OperationResult::OK) status = statusOfOwner(call, owner);
  if (status == OperationResult::OK) {
    const auto file = keyOf(call.current().handle);
    status = call.service.openFiles().testLock(file, owner, lock, denied);
  }
  return respondToLock(call, 13, status, denied, [] {});
}

}  // namespace nfslib::nfs4::operations
