#include "nfs4/operations.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CReadLink::execute(Call& call) {
  log().dbg("Read link");
  const auto& object = call.current();
  OperationResult status = statusUnlessFile(object);
  std::string target;
  if (status == OperationResult::SymbolicLink) {
    status = OperationResult::OK;
    target = object.fileSystem->openSymLink(object.path)->GetTarget();
  } else if (status == OperationResult::OK) {
    status = OperationResult::WrongType;
  }
  return respond(call, 27, status, [&] { call.stream << target; });
}

}  // namespace nfslib::nfs4::operations
