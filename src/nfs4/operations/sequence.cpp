#include "nfs4/hexadecimal.h"
#include "nfs4/operations.h"

#include <algorithm>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

constexpr unsigned kTargetHighestSlot = 10;

struct Arguments {
  sessionid session;
  unsigned sequenceId = 0;
  unsigned slot = 0;
  unsigned highestSlot = 0;
  bool cacheThis = false;
};

enum class Request { New, Repeated, Misordered };

// What the slot's last reply says of this request.
Request requestOf(const Nfs4Session::CompoundResponse* last, unsigned sequenceId) {
  if (last == nullptr) return Request::New;
  if (last->sequenceId == sequenceId) return last->data.empty() ? Request::New : Request::Repeated;
  return last->sequenceId + 1 == sequenceId ? Request::New : Request::Misordered;
}

OperationResult statusOf(const Call& call, unsigned requestSize) {
  const ChannelAttributes& limits = call.session().foreChannel();
  if (requestSize > limits.maxRequestSize) return OperationResult::RequestTooBig;
  if (call.flow.operationsCount > limits.maxOperations) return OperationResult::TooManyOperations;
  return OperationResult::OK;
}

}  // namespace

OperationResult CSequence::execute(Call& call) {
  Arguments args;
  call.stream >> args.session >> args.sequenceId >> args.slot >> args.highestSlot >> args.cacheThis;
  checkDecoded(call);
  log().dbg("Sequence: sessionId [%1], sequenceId [%2], slotId[%3], max slot [%4], cacheReply [%5]",
            hexadecimal(args.session.bytes), args.sequenceId, args.slot, args.highestSlot,
            args.cacheThis ? "true" : "false");

  call.flow.session = call.service.findSessionById(args.session);
  if (!call.flow.session) return respondAlways(call, 53, OperationResult::BadSession);
  call.flow.taken = call.session().take(call.service.profile());
  call.session().setCurrentResponse(nullptr);
  const auto last = call.session().findCachedResponse(args.slot);
  OperationResult status = OperationResult::OK;
  switch (requestOf(last.get(), args.sequenceId)) {
    case Request::Repeated:
      call.flow.responseFromCache = true;
      call.session().setCurrentResponse(last);
      return OperationResult::OK;
    case Request::New:
      if (last) *last = {.sequenceId = args.sequenceId, .data = {}};
      status = statusOf(call, call.stream.getInputDataSize());
      break;
    case Request::Misordered:
      status = OperationResult::SequenceMisordered;
      break;
  }
  if (status == OperationResult::OK && args.cacheThis &&
      !call.session().prepareToCache(args.slot, args.sequenceId, call.stream)) {
    status = OperationResult::BadSlot;
  }
  return respondAlways(call, 53, status, [&] {
    constexpr unsigned kNoFlags = 0;
    call.stream << args.session << args.sequenceId << args.slot << args.highestSlot
                << std::min(args.highestSlot, kTargetHighestSlot) << kNoFlags;
  });
}

}  // namespace nfslib::nfs4::operations
