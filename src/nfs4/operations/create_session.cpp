#include "nfs4/client_rules.h"
#include "nfs4/operations.h"

#include <string>
#include <vector>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

struct Arguments {
  SessionRequest request;
  unsigned callbackProgram = 0;
};

// callback_sec_parms4, RFC 5661 section 18.36.1: nothing is ever called back, but what is not read
// here would be taken for the next operation.
void skipSecurity(MemoryStream& in) {
  enum Flavor : unsigned { kNone = 0, kSys = 1, kGss = 6 };
  unsigned flavor = 0;
  in >> flavor;
  unsigned number = 0;
  std::string name;
  std::vector<unsigned> groups;
  std::vector<std::byte> handle;
  switch (flavor) {
    case kNone:
      return;
    case kSys:
      in >> number >> name >> number >> number >> groups;
      return;
    case kGss:
      in >> number >> handle >> handle;
      return;
    default:
      in.errorOccurred();  // nobody knows how long its body is
  }
}

Arguments readArguments(MemoryStream& in) {
  Arguments args;
  SessionRequest& request = args.request;
  in >> request.clientId >> request.sequenceId >> request.flags >> request.foreChannel >>
      request.backChannel >> args.callbackProgram;
  const unsigned flavors = in.readCount(4);
  for (unsigned i = 0; i < flavors && in; ++i) skipSecurity(in);
  return args;
}

std::string textOf(const ChannelAttributes& channel) {
  return message(
      "Header pad Size [%1], max request size [%2], max response size [%3], max response size "
      "cached [%4], max operations [%5], max requests [%6]",
      channel.headerPadSize, channel.maxRequestSize, channel.maxResponseSize,
      channel.maxResponseSizeCached, channel.maxOperations, channel.maxRequests);
}

}  // namespace

OperationResult CCreateSession::execute(Call& call) {
  Arguments args = readArguments(call.stream);
  checkDecoded(call);
  SessionRequest& request = args.request;
  log().dbg(
      "Create session: clientId [%1], m_sequenceId [%2], flags [%3], forward channel attributes "
      "[%4], callback program id [%5]",
      request.clientId, request.sequenceId, request.flags, textOf(request.foreChannel),
      args.callbackProgram);

  request.streamId = call.stream.getId();
  const SessionReply reply = clientRules(call).createSession(call, request);
  return respondAlways(call, 43, reply.status, [&] {
    call.stream << reply.session << request.sequenceId << reply.flags << reply.foreChannel
                << reply.backChannel;
  });
}

}  // namespace nfslib::nfs4::operations
