#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CClose::execute(Call& call) {
  unsigned sequenceId = 0;
  FsObjectStateId stateId;
  call.stream >> sequenceId >> stateId;
  checkDecoded(call);
  log().dbg("Close: sequenceId [%1], filesystem object state ID [%2]", sequenceId, textOf(stateId));

  auto& object = call.current();
  OperationResult status = statusUnlessSet(object);
  if (status == OperationResult::OK) status = statusOfStateId(object, stateId);
  if (status == OperationResult::OK) {
    const bool wasLast = call.session().closed();
    if (wasLast && object.fileSystem) object.fileSystem->closeFile(object.path);
    object.stateSequenceId = kClosedSequenceId;
    object.stateOther = {};
  }
  return respondAlways(call, 4, status, [&] {
    call.stream << FsObjectStateId{object.stateSequenceId, object.stateOther};
  });
}

}  // namespace nfslib::nfs4::operations
