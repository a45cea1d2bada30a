#include "nfs4/lock_requests.h"

namespace nfslib::nfs4 {

using nfs::OperationResult;

namespace {

// nfs_lock_type4; those behind WRITE_LT would wait.
enum LockType : unsigned { READ_LT = 1, WRITE_LT = 2, READW_LT = 3, WRITEW_LT = 4 };

OperationResult statusUnlessLockable(const Call& call) {
  const OperationResult status = statusUnlessFile(call.current());
  // Minor version 0 has only one status for what is neither a file nor a directory.
  const bool isOther =
      status == OperationResult::SymbolicLink || status == OperationResult::WrongType;
  return isOther && call.flow.minorVersion == 0 ? OperationResult::InvalidArgument : status;
}

}  // namespace

OperationResult statusOfLock(const Call& call, const LockWords& words,
                             StateTable::RangeLock& lock) {
  constexpr std::uint64_t kToTheEnd = UINT64_MAX;
  const OperationResult status = statusUnlessLockable(call);
  if (status != OperationResult::OK) return status;
  if (words.type < READ_LT || words.type > WRITEW_LT || words.length == 0) {
    return OperationResult::InvalidArgument;
  }
  const bool isOpenEnded = words.length == kToTheEnd;
  if (!isOpenEnded && words.length > UINT64_MAX - words.offset) {
    return OperationResult::InvalidArgument;
  }
  lock.range = {words.offset, isOpenEnded ? UINT64_MAX : words.offset + words.length - 1};
  lock.isWrite = words.type == WRITE_LT || words.type == WRITEW_LT;
  return OperationResult::OK;
}

}  // namespace nfslib::nfs4
