#include "nfs4/client.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CSetClientIdConfirm::execute(Call& call) {
  std::uint64_t id = 0;
  verifier4 verifier;
  call.stream >> id >> verifier;
  checkDecoded(call);
  log().dbg("Set client ID confirmation: clientId [%1], verifier [%2]", id,
            hexadecimal(verifier.bytes));

  const auto client = call.service.findClientById(id);
  const bool isSame = client && client->getOwner().verifier == verifier;
  return respondAlways(call, 36, isSame ? OperationResult::OK : OperationResult::StaleClientId);
}

}  // namespace nfslib::nfs4::operations
