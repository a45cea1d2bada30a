#include "nfs4/client_rules.h"
#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

nfs::OperationResult CDestroyClientId::execute(Call& call) {
  std::uint64_t id = 0;
  call.stream >> id;
  checkDecoded(call);
  log().dbg("Destroy client, ID [%1]", id);

  return respondAlways(call, 57, clientRules(call).destroyClient(call, id));
}

}  // namespace nfslib::nfs4::operations
