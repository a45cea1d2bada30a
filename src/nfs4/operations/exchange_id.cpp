#include "nfs4/client_rules.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/names.h"
#include "nfs4/operations.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

constexpr unsigned kKnownFlags = 0x4007'0103;
constexpr unsigned kUseNonPnfs = 0x0001'0000;  // EXCHGID4_FLAG_USE_NON_PNFS
constexpr unsigned kConfirmed = 0x8000'0000;   // EXCHGID4_FLAG_CONFIRMED_R

constexpr unsigned kServerInstance = 1;  // so_minor_id

struct Arguments {
  ClientRules::ExchangeRequest request;
  unsigned implementationCount = 0;
  nfs_impl_id4 implementation;
};

Arguments readArguments(MemoryStream& in) {
  Arguments args;
  auto& [owner, flags, protection] = args.request;
  in >> owner >> flags >> protection;
  if (owner.ownerId.size() > kLongestOwner) in.errorOccurred();
  state_protect_ops4 operations;
  ssv_sp_parms4 ssv;
  if (protection == kMachineCredential) in >> operations;
  if (protection == kSsv) in >> ssv;
  in >> args.implementationCount;
  if (args.implementationCount == 1) in >> args.implementation;
  return args;
}

std::string textOf(const Arguments& args) {
  if (args.implementationCount != 1) return "";
  return args.implementation.domain + ", " + args.implementation.name + ", " +
         std::to_string(args.implementation.date.seconds);
}

}  // namespace

OperationResult CExchangeId::execute(Call& call) {
  const Arguments args = readArguments(call.stream);
  const auto& [owner, flags, protection] = args.request;
  OperationResult status = OperationResult::OK;
  if ((flags & ~kKnownFlags) != 0) status = OperationResult::InvalidArgument;
  if (args.implementationCount > 1) status = OperationResult::BadXdr;
  if (status == OperationResult::OK) checkDecoded(call);
  log().dbg(
      "ExchangeId: verifier [%1], clientOwnerId [%2], flags [%3], state protect type [%4], client "
      "implementation ID [%5]",
      hexadecimal(owner.verifier.bytes), owner.ownerId, flags, protection, textOf(args));

  ClientReply reply;
  if (status == OperationResult::OK) {
    status = clientRules(call).exchangeId(call, args.request, reply);
  }
  return respondAlways(call, 42, status, [&] {
    constexpr unsigned kNoImplementation = 0;
    const ServerIdentity& server = call.service.identity();
    call.stream << reply.clientId << reply.sequenceId
                << (kUseNonPnfs | (reply.isConfirmed ? kConfirmed : 0U)) << unsigned{kNone}
                << ServerOwner{kServerInstance, server.owner} << server.scope << kNoImplementation;
  });
}

}  // namespace nfslib::nfs4::operations
