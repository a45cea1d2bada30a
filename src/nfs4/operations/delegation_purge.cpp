#include "nfs4/operations.h"

#include <cstdint>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

// There are no delegations.
OperationResult CDelegationPurge::execute(Call& call) {
  std::uint64_t clientId = 0;
  call.stream >> clientId;
  checkDecoded(call);
  log().dbg("Delegation purge: clientId [%1]", clientId);
  return respond(call, 7, OperationResult::OK);
}

}  // namespace nfslib::nfs4::operations
