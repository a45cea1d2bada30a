#include "nfs4/client_rules.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

nfs::OperationResult CDestroySession::execute(Call& call) {
  sessionid session;
  call.stream >> session;
  checkDecoded(call);
  log().dbg("Destroy session, ID [%1]", hexadecimal(session.bytes));

  return respondAlways(call, 44, clientRules(call).destroySession(call, session));
}

}  // namespace nfslib::nfs4::operations
