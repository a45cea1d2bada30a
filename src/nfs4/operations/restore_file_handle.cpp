#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CRestoreFileHandle::execute(Call& call) {
  log().dbg("Restore file handle");
  const bool isRestored = call.session().restoreSavedFileSystemObject(call.service);
  return respond(call, 31, isRestored ? OperationResult::OK : OperationResult::NoFileHandle);
}

}  // namespace nfslib::nfs4::operations
