#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/changing.h"
#include "nfs3/procedures.h"

#include <cstdint>

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

// Nothing is left to do: WRITE has given everything to the host.
void CCommit::execute(MemoryStream& stream, NfsService& service) {
  const utility::Changing file(utility::readHandle(stream, service), service);
  std::uint64_t offset = 0;
  unsigned count = 0;
  stream >> offset >> count;
  utility::checkDecoded(stream);
  log().dbg("commit: path [%1], offset [%2], count [%3]", file.path(), offset, count);
  const WccData wcc = file.wccData();

  stream << OperationResult::OK << wcc << service.identity().writeVerifier;
}

}  // namespace nfslib::nfs3::procedures
