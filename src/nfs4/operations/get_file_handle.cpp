#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

nfs::OperationResult CGetFileHandle::execute(Call& call) {
  log().dbg("Get file handle");
  const auto& object = call.current();
  return respondAlways(call, 10, statusUnlessSet(object), [&] { call.stream << object.handle; });
}

}  // namespace nfslib::nfs4::operations
