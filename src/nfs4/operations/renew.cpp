#include "nfs4/operations.h"

#include <cstdint>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CRenew::execute(Call& call) {
  std::uint64_t clientId = 0;
  call.stream >> clientId;
  checkDecoded(call);
  log().dbg("Renew: clientId [%1]", clientId);

  OperationResult status = OperationResult::OK;
  if (!call.service.renewLease(clientId)) {
    status = OperationResult::StaleClientId;
  } else if (call.service.hasLostState(clientId)) {
    status = OperationResult::Expired;
  }
  return respond(call, 30, status);
}

}  // namespace nfslib::nfs4::operations
