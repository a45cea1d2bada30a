#include "nfs4/client_rules.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CSequence::execute(Call& call) {
  sessionid session;
  ClientRules::SlotRequest args;
  call.stream >> session >> args.sequenceId >> args.slot >> args.highestSlot >> args.cacheThis;
  checkDecoded(call);
  log().dbg("Sequence: sessionId [%1], sequenceId [%2], slotId[%3], max slot [%4], cacheReply [%5]",
            hexadecimal(session.bytes), args.sequenceId, args.slot, args.highestSlot,
            args.cacheThis ? "true" : "false");

  call.flow.session = call.service.findSessionById(session);
  if (!call.flow.session) return respondAlways(call, 53, OperationResult::BadSession);
  call.flow.taken = call.session().take(call.service.profile());
  call.session().setCurrentResponse(nullptr);
  ClientRules::SlotReply reply;
  const OperationResult status = clientRules(call).enterSlot(call, args, reply);
  if (call.flow.responseFromCache) return OperationResult::OK;
  return respondAlways(call, 53, status, [&] {
    call.stream << session << args.sequenceId << args.slot << reply.highestSlot << reply.targetSlot
                << reply.statusFlags;
  });
}

}  // namespace nfslib::nfs4::operations
