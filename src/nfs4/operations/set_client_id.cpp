#include "nfs4/client.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/names.h"
#include "nfs4/operations.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

// There is one client of minor version 0 at a time: the newest.
OperationResult CSetClientId::execute(Call& call) {
  constexpr unsigned kMinorVersion = 0;
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

  call.service.deleteClientsOf(kMinorVersion);
  const auto client = call.service.createClient(owner, kMinorVersion);
  return respondAlways(call, 35, OperationResult::OK,
                       [&] { call.stream << client->getId() << owner.verifier; });
}

}  // namespace nfslib::nfs4::operations
