#pragma once

#include "nfs4/call.h"
#include "nfs4/state_table.h"

#include <cstdint>

namespace nfslib::nfs4 {

// What LOCK, LOCKT and LOCKU have in common.

// The words of a lock as their arguments have them; each of the three has other words in between.
struct LockWords {
  std::uint32_t type = 0;  // nfs_lock_type4
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
};

// What is due when no lock can be set like this, on the current object. A client that would wait is
// answered like one that would not: it asks again.
nfs::OperationResult statusOfLock(const Call& call, const LockWords& words,
                                  StateTable::RangeLock& lock);

// The result: `body` writes behind OK, who is in the way stands behind DENIED.
template <class Body>
nfs::OperationResult respondToLock(const Call& call, unsigned operation,
                                   nfs::OperationResult status, const LockDenied& denied,
                                   const Body& body) {
  if (status != nfs::OperationResult::Denied) return respondAlways(call, operation, status, body);
  call.stream << operation;
  const unsigned statusPosition = call.stream.getOutputPosition();
  call.stream << status << denied;
  nfs::OperationResult fits = statusIfFull(call, statusPosition);
  if (fits == nfs::OperationResult::OK) {
    fits = call.session().checkResponseSize(statusPosition, call.stream);
  }
  return fits == nfs::OperationResult::OK ? status : fits;
}

}  // namespace nfslib::nfs4
