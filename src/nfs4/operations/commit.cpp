#include "nfs4/operations.h"

#include <cstdint>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

// Nothing is left to do: WRITE has given everything to the host.
OperationResult CCommit::execute(Call& call) {
  std::uint64_t offset = 0;
  unsigned count = 0;
  call.stream >> offset >> count;
  checkDecoded(call);
  log().dbg("Commit: offset [%1], count [%2]", offset, count);

  return respond(call, 5, statusUnlessFile(call.current()),
                 [&] { call.stream << call.service.identity().writeVerifier; });
}

}  // namespace nfslib::nfs4::operations
