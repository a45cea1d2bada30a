#include "nfs4/client.h"
#include "nfs4/operations.h"

#include <cstdint>
#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

// No lock is held for anybody.
OperationResult CReleaseLockOwner::execute(Call& call) {
  std::uint64_t clientId = 0;
  std::string owner;
  call.stream >> clientId >> owner;
  checkDecoded(call);
  log().dbg("Release lock owner: clientId [%1]", clientId);
  const bool isKnown = call.service.findClientById(clientId) != nullptr;
  return respond(call, 39, isKnown ? OperationResult::OK : OperationResult::StaleClientId);
}

}  // namespace nfslib::nfs4::operations
