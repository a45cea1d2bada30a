#include "nfs4/client.h"
#include "nfs4/operations.h"

#include <cstdint>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CRenew::execute(Call& call) {
  std::uint64_t clientId = 0;
  call.stream >> clientId;
  checkDecoded(call);
  log().dbg("Renew: clientId [%1]", clientId);

  const bool isKnown = call.service.findClientById(clientId) != nullptr;
  return respond(call, 30, isKnown ? OperationResult::OK : OperationResult::StaleClientId);
}

}  // namespace nfslib::nfs4::operations
