#include "nfs4/client.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/names.h"
#include "nfs4/operations.h"

#include <memory>
#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

constexpr unsigned kMinorVersion = 0;

std::shared_ptr<Nfs4Client> clientOf(NfsService& service, const ClientOwner& owner) {
  if (service.profile().hasOneClient) {
    service.deleteClientsOf(kMinorVersion);
  } else {
    // A client that has not been started anew only tells where it can be called back.
    auto known = service.findClientByOwner(owner.ownerId);
    if (known && known->getMinorVersion() == kMinorVersion &&
        known->getOwner().verifier == owner.verifier) {
      return known;
    }
  }
  return service.createClient(owner, kMinorVersion);
}

}  // namespace

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

  const auto client = clientOf(call.service, owner);
  return respondAlways(call, 35, OperationResult::OK,
                       [&] { call.stream << client->getId() << owner.verifier; });
}

}  // namespace nfslib::nfs4::operations
