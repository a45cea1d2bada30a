#include "nfs4/client.h"
#include "nfs4/operations.h"

#include <string>
#include <vector>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

constexpr unsigned kSmallestResponse = 4096;
constexpr unsigned kBackChannel = 2;  // CREATE_SESSION4_FLAG_CONN_BACK_CHAN

struct Arguments {
  std::uint64_t clientId = 0;
  unsigned sequenceId = 0;
  unsigned flags = 0;
  ChannelAttributes foreChannel;
  ChannelAttributes backChannel;
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
  in >> args.clientId >> args.sequenceId >> args.flags >> args.foreChannel >> args.backChannel >>
      args.callbackProgram;
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
  log().dbg(
      "Create session: clientId [%1], m_sequenceId [%2], flags [%3], forward channel attributes "
      "[%4], callback program id [%5]",
      args.clientId, args.sequenceId, args.flags, textOf(args.foreChannel), args.callbackProgram);

  const auto client = call.service.findClientById(args.clientId);
  OperationResult status = OperationResult::OK;
  sessionid session;
  if (args.foreChannel.maxResponseSize < kSmallestResponse) {
    status = OperationResult::TooSmall;
  } else if (!client) {
    status = OperationResult::StaleClientId;
  } else if (args.sequenceId + 1 == client->getSequenceId()) {
    session = client->getLastSessionId();  // the request was sent again
  } else if (args.sequenceId == client->getSequenceId()) {
    session = call.service.createSession(client, call.stream.getId(), args.foreChannel)->id();
  } else {
    status = OperationResult::SequenceMisordered;
  }
  return respondAlways(call, 43, status, [&] {
    call.stream << session << args.sequenceId << (args.flags & kBackChannel) << args.foreChannel
                << args.backChannel;
  });
}

}  // namespace nfslib::nfs4::operations
