#include "nfs4/operations.h"
#include "nfs4/state_table.h"

#include <vector>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CTestStateIds::execute(Call& call) {
  constexpr unsigned kStateIdSize = 16;
  std::vector<FsObjectStateId> stateIds(call.stream.readCount(kStateIdSize));
  for (FsObjectStateId& stateId : stateIds) call.stream >> stateId;
  checkDecoded(call);
  log().dbg("Test state IDs: count [%1]", stateIds.size());

  return respond(call, 55, OperationResult::OK, [&] {
    call.stream << static_cast<unsigned>(stateIds.size());
    for (const FsObjectStateId& stateId : stateIds) {
      call.stream << call.service.openFiles().test(stateId, call.session().clientId());
    }
  });
}

}  // namespace nfslib::nfs4::operations
