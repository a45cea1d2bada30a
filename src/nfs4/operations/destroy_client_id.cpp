#include "nfs4/client.h"
#include "nfs4/operations.h"
#include "nfs4/state_table.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CDestroyClientId::execute(Call& call) {
  std::uint64_t id = 0;
  call.stream >> id;
  checkDecoded(call);
  log().dbg("Destroy client, ID [%1]", id);

  const auto client = call.service.findClientById(id);
  OperationResult status = OperationResult::OK;
  if (!client) {
    status = OperationResult::StaleClientId;
  } else if (!client->getSessions().empty() || call.service.openFiles().hasState(id)) {
    status = OperationResult::ClientIdBusy;
  } else {
    call.service.deleteClientId(id);
  }
  return respondAlways(call, 57, status);
}

}  // namespace nfslib::nfs4::operations
