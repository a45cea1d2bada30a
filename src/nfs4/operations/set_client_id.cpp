#include "nfs4/client_rules.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/names.h"
#include "nfs4/operations.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CSetClientId::execute(Call& call) {
  ClientOwner owner;
  unsigned callbackProgram = 0;
  std::string callbackNet;
  std::string callbackAddress;
  unsigned callbackIdent = 0;
  call.stream >> owner >> callbackProgram >> callbackNet >> callbackAddress >> callbackIdent;
  if (owner.ownerId.size() > kLongestOwner) call.stream.errorOccurred();
  checkDecoded(call);
  log().dbg(
      "Set client ID: verifier [%1], clientOwnerId [%2], callback program [%3], callback address "
      "[%4], callback identificator [%5]",
      hexadecimal(owner.verifier.bytes), owner.ownerId, callbackProgram, callbackAddress,
      callbackIdent);

  ClientReply reply;
  const OperationResult status = clientRules(call).setClientId(call, owner, reply);
  const OperationResult sent =
      respondAlways(call, 35, status, [&] { call.stream << reply.clientId << reply.confirmation; });
  // This failure alone has a body, the address of who uses the name: nobody needs to know.
  if (sent == OperationResult::ClientIdInUse) call.stream << std::string() << std::string();
  return sent;
}

}  // namespace nfslib::nfs4::operations
