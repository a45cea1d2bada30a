#include "nfs4/client_rules.h"
#include "nfs4/state_table.h"

#include <algorithm>

namespace nfslib::nfs4 {

using nfs::OperationResult;

namespace {

constexpr unsigned kMinor0 = 0;
constexpr unsigned kMinor1 = 1;
constexpr unsigned kTargetHighestSlot = 10;
constexpr unsigned kSmallestResponse = 4096;
constexpr unsigned kBackChannel = 2;     // CREATE_SESSION4_FLAG_CONN_BACK_CHAN
constexpr unsigned kOnlySequenceId = 1;  // of every CREATE_SESSION

enum class Request { New, Repeated, Misordered };

// What the slot's last reply says of this request.
Request requestOf(const CompoundResponse* last, unsigned sequenceId) {
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

// What becomes of an owner that is known or not; on OK `client` is the one to answer with, empty
// when there has to be a new one.
OperationResult statusOf(const ClientRules::ExchangeRequest& request,
                         std::shared_ptr<Nfs4Client>& client) {
  const bool updates = (request.flags & kUpdateConfirmed) != 0;
  if (!client || !client->isConfirmed()) {
    if (updates) return OperationResult::NoEntry;
    client.reset();
    return OperationResult::OK;
  }
  if (client->getOwner().verifier == request.owner.verifier) return OperationResult::OK;
  if (updates) return OperationResult::NotSame;
  if (!client->getSessions().empty()) return OperationResult::ClientIdInUse;
  client.reset();
  return OperationResult::OK;
}

class ClassicClientRules final : public ClientRules {
 public:
  OperationResult enterSlot(Call& call, const SlotRequest& request,
                            SlotReply& reply) const override {
    reply = {request.highestSlot, std::min(request.highestSlot, kTargetHighestSlot), 0};
    const auto last = call.session().findCachedResponse(request.slot);
    OperationResult status = OperationResult::OK;
    switch (requestOf(last.get(), request.sequenceId)) {
      case Request::Repeated:
        call.flow.responseFromCache = true;
        call.session().setCurrentResponse(last);
        return OperationResult::OK;
      case Request::New:
        if (last) *last = {.sequenceId = request.sequenceId, .data = {}};
        status = statusOf(call, call.stream.getInputDataSize());
        break;
      case Request::Misordered:
        status = OperationResult::SequenceMisordered;
        break;
    }
    if (status == OperationResult::OK && request.cacheThis &&
        !call.session().prepareToCache(request.slot, request.sequenceId, call.stream)) {
      status = OperationResult::BadSlot;
    }
    return status;
  }

  OperationResult exchangeId(Call& call, const ExchangeRequest& request,
                             ClientReply& reply) const override {
    std::shared_ptr<Nfs4Client> client = call.service.findClientByOwner(request.owner.ownerId);
    const OperationResult status = statusOf(request, client);
    if (status != OperationResult::OK) return status;
    reply.isConfirmed = client != nullptr;
    if (!client) client = call.service.createClient(request.owner, kMinor1);
    reply.clientId = client->getId();
    reply.sequenceId = kOnlySequenceId;
    return OperationResult::OK;
  }

  SessionReply createSession(Call& call, const SessionRequest& request) const override {
    SessionReply reply{.status = OperationResult::OK,
                       .session = {},
                       .flags = request.flags & kBackChannel,
                       .foreChannel = request.foreChannel,
                       .backChannel = request.backChannel};
    const auto client = call.service.findClientById(request.clientId);
    if (request.foreChannel.maxResponseSize < kSmallestResponse) {
      reply.status = OperationResult::TooSmall;
    } else if (!client) {
      reply.status = OperationResult::StaleClientId;
    } else if (request.sequenceId + 1 == kOnlySequenceId) {
      reply.session = client->getLastSessionId();  // the request was sent again
    } else if (request.sequenceId == kOnlySequenceId) {
      reply.session = call.service.createSession(client, request.streamId, reply.foreChannel)->id();
    } else {
      reply.status = OperationResult::SequenceMisordered;
    }
    return reply;
  }

  OperationResult destroySession(Call& call, const sessionid& session) const override {
    return call.service.destroySession(session) ? OperationResult::OK : OperationResult::BadSession;
  }

  OperationResult destroyClient(Call& call, std::uint64_t id) const override {
    const auto client = call.service.findClientById(id);
    if (!client) return OperationResult::StaleClientId;
    if (!client->getSessions().empty() || call.service.openFiles().hasState(id)) {
      return OperationResult::ClientIdBusy;
    }
    call.service.deleteClientId(id);
    return OperationResult::OK;
  }

  OperationResult reclaimComplete(Call&, bool) const override { return OperationResult::OK; }

  // A new client takes the place of all others.
  OperationResult setClientId(Call& call, const ClientOwner& owner,
                              ClientReply& reply) const override {
    call.service.deleteClientsOf(kMinor0);
    reply.clientId = call.service.createClient(owner, kMinor0)->getId();
    reply.confirmation = owner.verifier;
    return OperationResult::OK;
  }

  OperationResult confirmClientId(Call& call, std::uint64_t id,
                                  const verifier4& confirmation) const override {
    const auto client = call.service.findClientById(id);
    const bool isSame = client && client->getOwner().verifier == confirmation;
    return isSame ? OperationResult::OK : OperationResult::StaleClientId;
  }
};

}  // namespace

const ClientRules& classicClientRules() {
  static const ClassicClientRules rules;
  return rules;
}

const ClientRules& clientRules(const Call& call) {
  return call.service.profile().isModern ? modernClientRules() : classicClientRules();
}

}  // namespace nfslib::nfs4
