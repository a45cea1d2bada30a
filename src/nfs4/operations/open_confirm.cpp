#include "nfs4/operations.h"
#include "nfs4/state_table.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

// No OPEN asks for it, so what it names is confirmed already, or is not there.
OperationResult COpenConfirm::execute(Call& call) {
  constexpr std::uint64_t kNoSession = 0;
  FsObjectStateId stateId;
  unsigned sequenceId = 0;
  call.stream >> stateId >> sequenceId;
  checkDecoded(call);
  log().dbg("Open confirm: stateId [%1], sequenceId [%2]", textOf(stateId), sequenceId);

  OperationResult status = statusUnlessSet(call.current());
  if (status == OperationResult::OK) status = call.service.openFiles().test(stateId, kNoSession);
  return respondAlways(call, 20, status, [&] { call.stream << stateId; });
}

}  // namespace nfslib::nfs4::operations
