#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CLookupParent::execute(Call& call) {
  log().dbg("Lookup parent for path [%1]", call.current().path);
  OperationResult status = statusUnlessDirectory(call.current());
  if (status == OperationResult::OK && !call.session().setParentAsCurrentFileSystemObject()) {
    status = call.session().refusalOr(OperationResult::NoEntry);
  }
  return respondAlways(call, 16, status);
}

}  // namespace nfslib::nfs4::operations
