#include "nfs4/client_rules.h"

#include <algorithm>
#include <functional>
#include <string_view>

namespace nfslib::nfs4 {

using nfs::OperationResult;

namespace {

// SEQ4_STATUS_EXPIRED_ALL_STATE_REVOKED, RFC 8881 section 18.46. Others would make a client recover
// what it has not lost.
constexpr unsigned kStateRevoked = 0x8;

Principal principalOf(const Call& call) { return {call.caller.flavor, call.caller.uid}; }

// Of the operations behind SEQUENCE and of who sends them. A long WRITE is not read whole: what
// tells two requests apart is how they begin, how they end, and how long they are.
SlotTable::Fingerprint fingerprintOf(const Call& call) {
  constexpr std::size_t kPart = 512;
  const memory::const_buffer left = call.stream.inputLeft();
  const std::string_view bytes(reinterpret_cast<const char*>(left.data()), left.size());
  const std::string_view tail = bytes.substr(bytes.size() - std::min(bytes.size(), kPart));
  SlotTable::Fingerprint sum = call.flow.operationsCount;
  const auto add = [&sum](std::uint64_t value) {
    constexpr std::uint64_t kOddNumber = 0x9E37'79B9'7F4A'7C15;  // 2^64 by the golden ratio
    sum = (sum ^ value) * kOddNumber;
    sum ^= sum >> 32U;
  };
  add(bytes.size());
  add((std::uint64_t{call.caller.flavor} << 32U) | call.caller.uid);
  add(std::hash<std::string_view>{}(bytes.substr(0, kPart)));
  if (bytes.size() > kPart) add(std::hash<std::string_view>{}(tail));
  return sum;
}

class ModernClientRules final : public ClientRules {
 public:
  OperationResult enterSlot(Call& call, const SlotRequest& request,
                            SlotReply& reply) const override {
    Nfs4Session& session = call.session();
    if (session.isGone()) return OperationResult::BadSession;  // while it was waited for
    SlotTable& slots = session.slots();
    const auto fingerprint = fingerprintOf(call);
    const auto verdict = slots.judge(request.slot, request.sequenceId, fingerprint);
    switch (verdict) {
      case SlotTable::Verdict::NoSlot:
        return OperationResult::BadSlot;
      case SlotTable::Verdict::Misordered:
        return OperationResult::SequenceMisordered;
      case SlotTable::Verdict::FalseRetry:
        return OperationResult::SequenceFalseRetry;
      case SlotTable::Verdict::Repeated:
        call.flow.responseFromCache = true;
        session.setCurrentResponse(slots.responseOf(request.slot));
        break;
      case SlotTable::Verdict::NotKept:
        // SEQUENCE itself never says so: RFC 8881 section 2.10.6.1.3.
        call.flow.refusal = OperationResult::RetryUncachedReply;
        break;
      case SlotTable::Verdict::New: {
        const OperationResult status = statusUnlessWithinLimits(call);
        if (status != OperationResult::OK) return status;
        const bool isRevoked = call.service.hasLostState(session.clientId());
        const auto response = slots.begin(request.slot, request.sequenceId, fingerprint,
                                          isRevoked ? kStateRevoked : 0, request.cacheThis);
        if (response) session.record(response, call.stream);
        break;
      }
    }
    session.renewLease(call.service.now());
    const auto highest = static_cast<std::uint32_t>(slots.size() - 1);
    reply = {highest, highest, slots.statusFlagsOf(request.slot)};
    return OperationResult::OK;
  }

  OperationResult exchangeId(Call& call, const ExchangeRequest& request,
                             ClientReply& reply) const override {
    switch (request.protection) {
      case kNone:
        break;
      case kMachineCredential:  // nobody has one: RPCSEC_GSS is not served
        return OperationResult::InvalidArgument;
      case kSsv:
        return OperationResult::EncryptionAlgorithmUnsupported;
      default:
        return OperationResult::BadXdr;
    }
    const bool updates = (request.flags & kUpdateConfirmed) != 0;
    return call.service.identifyClient({request.owner, principalOf(call), updates}, reply);
  }

  SessionReply createSession(Call& call, const SessionRequest& request) const override {
    SessionRequest own = request;
    own.principal = principalOf(call);
    return call.service.createSession(own);
  }

  OperationResult destroySession(Call& call, const sessionid& session) const override {
    // What came behind would run in no session.
    const bool isLast = call.flow.currentOperation + 1 == call.flow.operationsCount;
    const bool isOwn = call.flow.session && call.session().id() == session;
    if (isOwn && !isLast) return OperationResult::NotOnlyOperation;
    return call.service.destroySession(session) ? OperationResult::OK : OperationResult::BadSession;
  }

  OperationResult destroyClient(Call& call, std::uint64_t id) const override {
    return call.service.destroyClient(id);
  }

  // One file system is told of when it has moved here from another server; none does.
  OperationResult reclaimComplete(Call& call, bool ofOneFileSystem) const override {
    return ofOneFileSystem ? statusUnlessSet(call.current())
                           : call.service.completeReclaim(call.session().clientId());
  }

  OperationResult setClientId(Call& call, const ClientOwner& owner,
                              ClientReply& reply) const override {
    return call.service.setClientId({owner, principalOf(call), false}, reply);
  }

  OperationResult confirmClientId(Call& call, std::uint64_t id,
                                  const verifier4& confirmation) const override {
    return call.service.confirmClientId(id, confirmation, principalOf(call));
  }

 private:
  static OperationResult statusUnlessWithinLimits(const Call& call) {
    const ChannelAttributes& limits = call.session().foreChannel();
    if (call.stream.inputSize() > limits.maxRequestSize) return OperationResult::RequestTooBig;
    if (call.flow.operationsCount > limits.maxOperations) return OperationResult::TooManyOperations;
    return OperationResult::OK;
  }
};

}  // namespace

const ClientRules& modernClientRules() {
  static const ModernClientRules rules;
  return rules;
}

}  // namespace nfslib::nfs4
