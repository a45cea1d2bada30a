#include "nfs4/hexadecimal.h"
#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CDestroySession::execute(Call& call) {
  sessionid session;
  call.stream >> session;
  checkDecoded(call);
  log().dbg("Destroy session, ID [%1]", hexadecimal(session.bytes));

  const bool isKnown = call.service.findSessionById(session) != nullptr;
  if (isKnown) call.service.destroySession(session);
  return respondAlways(call, 44, isKnown ? OperationResult::OK : OperationResult::BadSession);
}

}  // namespace nfslib::nfs4::operations
