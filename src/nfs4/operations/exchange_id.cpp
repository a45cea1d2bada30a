#include "nfs4/client.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/names.h"
#include "nfs4/operations.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

constexpr unsigned kKnownFlags = 0x4007'0103;
constexpr unsigned kUpdateConfirmed = 0x4000'0000;  // EXCHGID4_FLAG_UPD_CONFIRMED_REC_A
constexpr unsigned kUseNonPnfs = 0x0001'0000;       // EXCHGID4_FLAG_USE_NON_PNFS
constexpr unsigned kConfirmed = 0x8000'0000;        // EXCHGID4_FLAG_CONFIRMED_R

enum StateProtection : unsigned { kNone = 0, kMachineCredential = 1, kSsv = 2 };

constexpr unsigned kServerInstance = 1;  // so_minor_id

struct Arguments {
  ClientOwner owner;
  unsigned flags = 0;
  unsigned protection = kNone;
  unsigned implementationCount = 0;
  nfs_impl_id4 implementation;
};

Arguments readArguments(MemoryStream& in) {
  Arguments args;
  in >> args.owner >> args.flags >> args.protection;
  if (args.owner.ownerId.size() > kLongestOwner) in.errorOccurred();
  state_protect_ops4 operations;
  ssv_sp_parms4 ssv;
  if (args.protection == kMachineCredential) in >> operations;
  if (args.protection == kSsv) in >> ssv;
  in >> args.implementationCount;
  if (args.implementationCount == 1) in >> args.implementation;
  return args;
}

std::string textOf(const Arguments& args) {
  if (args.implementationCount != 1) return "";
  return args.implementation.domain + ", " + args.implementation.name + ", " +
         std::to_string(args.implementation.date.seconds);
}

// What becomes of an owner that is known or not; on OK `client` is the one to answer with, empty
// when there has to be a new one.
OperationResult statusOf(const Arguments& args, std::shared_ptr<Nfs4Client>& client) {
  const bool updates = (args.flags & kUpdateConfirmed) != 0;
  if (!client || !client->isConfirmed()) {
    if (updates) return OperationResult::NoEntry;
    client.reset();
    return OperationResult::OK;
  }
  if (client->getOwner().verifier == args.owner.verifier) return OperationResult::OK;
  if (updates) return OperationResult::NotSame;
  if (!client->getSessions().empty()) return OperationResult::ClientIdInUse;
  client.reset();
  return OperationResult::OK;
}

}  // namespace

OperationResult CExchangeId::execute(Call& call) {
  const Arguments args = readArguments(call.stream);
  OperationResult status = OperationResult::OK;
  if ((args.flags & ~kKnownFlags) != 0) status = OperationResult::InvalidArgument;
  if (args.implementationCount > 1) status = OperationResult::BadXdr;
  if (status == OperationResult::OK) checkDecoded(call);
  log().dbg(
      "ExchangeId: verifier [%1], clientOwnerId [%2], flags [%3], state protect type [%4], client "
      "implementation ID [%5]",
      hexadecimal(args.owner.verifier.bytes), args.owner.ownerId, args.flags, args.protection,
      textOf(args));

  std::shared_ptr<Nfs4Client> client = call.service.findClientByOwner(args.owner.ownerId);
  if (status == OperationResult::OK) status = statusOf(args, client);
  const bool isConfirmed = client != nullptr;
  constexpr unsigned kMinorVersion = 1;
  if (status == OperationResult::OK && !client) {
    client = call.service.createClient(args.owner, kMinorVersion);
  }
  return respondAlways(call, 42, status, [&] {
    constexpr unsigned kNoImplementation = 0;
    const ServerIdentity& server = call.service.identity();
    call.stream << client->getId() << client->getSequenceId()
                << (kUseNonPnfs | (isConfirmed ? kConfirmed : 0U)) << unsigned{kNone}
                << ServerOwner{kServerInstance, server.owner} << server.scope << kNoImplementation;
  });
}

}  // namespace nfslib::nfs4::operations
