#include "nfs4/client_rules.h"
#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

// Nothing outlives the server that could be reclaimed.
nfs::OperationResult CReclaimComplete::execute(Call& call) {
  bool oneFileSystem = false;
  call.stream >> oneFileSystem;
  checkDecoded(call);
  log().dbg("Reclaim complete: one_fs [%1]", oneFileSystem ? "true" : "false");
  return respondAlways(call, 58, clientRules(call).reclaimComplete(call, oneFileSystem));
}

}  // namespace nfslib::nfs4::operations
