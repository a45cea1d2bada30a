#include "nfs4/client_rules.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

nfs::OperationResult CSetClientIdConfirm::execute(Call& call) {
  std::uint64_t id = 0;
  verifier4 verifier;
  call.stream >> id >> verifier;
  checkDecoded(call);
  log().dbg("Set client ID confirmation: clientId [%1], verifier [%2]", id,
            hexadecimal(verifier.bytes));

  return respondAlways(call, 36, clientRules(call).confirmClientId(call, id, verifier));
}

}  // namespace nfslib::nfs4::operations
