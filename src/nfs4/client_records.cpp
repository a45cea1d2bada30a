// The clients of NfsService as the modern profile keeps them: records that are confirmed or not
// yet, and leases.
//
// What others hold is asked of the table of what is open before the client lock is taken, since
// that table asks whether clients are silent.

#include "common/log.h"
#include "nfs4/client.h"
#include "nfs4/client_limits.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/state_table.h"
#include "server/nfs_service.h"

#include <algorithm>
#include <cstddef>
#include <random>
#include <utility>

namespace nfslib {

using nfs::OperationResult;
using nfs4::ClientReply;
using nfs4::ClientRequest;
using nfs4::Principal;
using nfs4::SessionReply;
using nfs4::SessionRequest;
using TimePoint = std::chrono::steady_clock::time_point;

namespace {

constexpr unsigned kMinor0 = 0;
constexpr unsigned kMinor1 = 1;
constexpr unsigned kKnownSessionFlags = 7;  // CREATE_SESSION4_FLAG_*

// From the system: one that can be guessed would let anybody confirm.
verifier4 drawVerifier() {
  std::random_device source;
  verifier4 drawn;
  for (std::byte& byte : drawn.bytes) byte = static_cast<std::byte>(source());
  return drawn;
}

// Whether a session can be had as it is asked for.
OperationResult statusOf(const SessionRequest& request) {
  const ChannelAttributes& fore = request.foreChannel;
  if ((request.flags & ~kKnownSessionFlags) != 0 || fore.maxRequests == 0) {
    return OperationResult::InvalidArgument;
  }
  return std::min(fore.maxRequestSize, fore.maxResponseSize) < nfs4::kSmallestMessage
             ? OperationResult::TooSmall
             : OperationResult::OK;
}

}  // namespace

// ---- Records

NfsService::OwnerRecords NfsService::recordsOf(const OwnerKey& key) const {
  const auto known = m_owners.find(key);
  return known == m_owners.end() ? OwnerRecords{} : known->second;
}

// Whether a client of the same name is another one's, who needs it still.
bool NfsService::isInUseByAnother(const OwnerKey& key, const Principal& principal) const {
  std::shared_ptr<Nfs4Client> known;
  {
    const std::lock_guard lock(m_clientLock);
    known = recordsOf(key).confirmed;
  }
  if (!known || known->principal() == principal || isSilent(*known, now())) return false;
  return known->sessionCount() != 0 || openFiles().hasState(known->getId());
}

// Empty when there are too many.
std::shared_ptr<Nfs4Client> NfsService::addRecord(const ClientRequest& request, const OwnerKey& key,
                                                  GoneClients& gone) {
  takeOutForgotten(gone);
  if (m_clients.size() >= nfs4::kMaxClients && !takeOutLeast(false, gone)) return nullptr;
  auto client = addClient(request.owner, key.first, request.principal);
  m_owners[key].unconfirmed = client;
  return client;
}

// The client is the owner's from now on. One from before it was started anew goes.
void NfsService::confirm(const std::shared_ptr<Nfs4Client>& client, GoneClients& gone) {
  if (client->isConfirmed()) return;
  const OwnerKey key{client->getMinorVersion(), client->getOwner().ownerId};
  if (const auto before = recordsOf(key).confirmed) takeOut(before, gone);
  client->confirm();
  m_owners[key] = {.confirmed = client, .unconfirmed = nullptr};
  m_clientsByOwner.insert_or_assign(key.second, client);
}

OperationResult NfsService::identifyClient(const ClientRequest& request, ClientReply& reply) {
  const OwnerKey key{kMinor1, request.owner.ownerId};
  const auto answer = [&](Nfs4Client& client) {
    reply.clientId = client.getId();
    reply.sequenceId = client.record().lastSequenceId + 1;
    reply.isConfirmed = client.isConfirmed();
    return OperationResult::OK;
  };
  const bool isInUse = isInUseByAnother(key, request.principal);
  GoneClients gone;
  std::shared_ptr<Nfs4Client> fresh;
  {
    const std::lock_guard lock(m_clientLock);
    const auto [known, unconfirmed] = recordsOf(key);
    const bool isSame = known && known->getOwner().verifier == request.owner.verifier;
    const bool isOwn = known && known->principal() == request.principal;
    if (request.updates) {
      if (!known) return OperationResult::NoEntry;
      if (!isSame) return OperationResult::NotSame;
      return isOwn ? answer(*known) : OperationResult::NotOwner;
    }
    if (isSame && isOwn) return answer(*known);
    if (known && !isOwn) {
      if (isInUse) return OperationResult::ClientIdInUse;
      takeOut(known, gone);
    }
    // Started anew, or never confirmed: the confirmed one stays until this one is confirmed.
    if (unconfirmed) takeOut(unconfirmed, gone);
    fresh = addRecord(request, key, gone);
    if (fresh) answer(*fresh);
  }
  dropState(gone);
  return fresh ? OperationResult::OK : OperationResult::Delay;
}

OperationResult NfsService::destroyClient(std::uint64_t id) {
  const bool hasState = openFiles().hasState(id);
  GoneClients gone;
  {
    const std::lock_guard lock(m_clientLock);
    const auto client = m_clients.find(id);
    if (client == m_clients.end() || client->second->getMinorVersion() != kMinor1) {
      return OperationResult::StaleClientId;
    }
    if (hasState || client->second->sessionCount() != 0) return OperationResult::ClientIdBusy;
    takeOut(std::shared_ptr(client->second), gone);
  }
  dropState(gone);
  return OperationResult::OK;
}

OperationResult NfsService::completeReclaim(std::uint64_t id) {
  const std::lock_guard lock(m_clientLock);
  const auto client = m_clients.find(id);
  if (client == m_clients.end()) return OperationResult::StaleClientId;
  const bool wasDone = std::exchange(client->second->record().hasReclaimed, true);
  return wasDone ? OperationResult::CompleteAlready : OperationResult::OK;
}

OperationResult NfsService::setClientId(const ClientRequest& request, ClientReply& reply) {
  const OwnerKey key{kMinor0, request.owner.ownerId};
  const verifier4 confirmation = drawVerifier();
  const bool isInUse = isInUseByAnother(key, request.principal);
  GoneClients gone;
  std::shared_ptr<Nfs4Client> client;
  {
    const std::lock_guard lock(m_clientLock);
    const auto [known, unconfirmed] = recordsOf(key);
    const bool isOwn = known && known->principal() == request.principal;
    if (known && !isOwn) {
      if (isInUse) return OperationResult::ClientIdInUse;
      takeOut(known, gone);
    }
    if (unconfirmed) takeOut(unconfirmed, gone);
    // One that has not been started anew only tells where it can be called back.
    const bool isSame = isOwn && known->getOwner().verifier == request.owner.verifier;
    client = isSame ? known : addRecord(request, key, gone);
    if (client) {
      client->record().awaitedConfirmation = confirmation;
      reply.clientId = client->getId();
      reply.confirmation = confirmation;
    }
  }
  dropState(gone);
  return client ? OperationResult::OK : OperationResult::Delay;
}

OperationResult NfsService::confirmClientId(std::uint64_t id, const verifier4& confirmation,
                                            const Principal& principal) {
  GoneClients gone;
  {
    const std::lock_guard lock(m_clientLock);
    const auto row = m_clients.find(id);
    if (row == m_clients.end() || row->second->getMinorVersion() != kMinor0) {
      return OperationResult::StaleClientId;
    }
    const auto client = row->second;
    Nfs4Client::Record& record = client->record();
    const bool isAwaited = record.awaitedConfirmation == confirmation;
    const bool isRepeated = client->isConfirmed() && record.confirmation == confirmation;
    if (!isAwaited && !isRepeated) return OperationResult::StaleClientId;
    if (client->principal() != principal) return OperationResult::ClientIdInUse;
    if (isAwaited) {
      record.confirmation = confirmation;
      record.awaitedConfirmation.reset();
    }
    client->lease().renew(now());
    confirm(client, gone);
  }
  dropState(gone);
  // A client that makes itself known again after it was told that it lost something has given up
  // the rest.
  if (hasLostState(id)) openFiles().dropClient(id);
  return OperationResult::OK;
}

// ---- Sessions

SessionReply NfsService::createSession(const SessionRequest& request) {
  SessionReply reply;
  const auto failure = [&reply](OperationResult status) {
    reply.status = status;
    return reply;
  };
  GoneClients gone;
  {
    const std::lock_guard lock(m_clientLock);
    const auto row = m_clients.find(request.clientId);
    if (row == m_clients.end() || row->second->getMinorVersion() != kMinor1) {
      return failure(OperationResult::StaleClientId);
    }
    const auto client = row->second;
    // Asked first, so that nobody uses up the numbers of another one's client.
    if (!client->isConfirmed() && client->principal() != request.principal) {
      return failure(OperationResult::ClientIdInUse);
    }
    Nfs4Client::Record& record = client->record();
    if (request.sequenceId == record.lastSequenceId) return record.lastReply;
    if (request.sequenceId != record.lastSequenceId + 1) {
      return failure(OperationResult::SequenceMisordered);
    }
    client->lease().renew(now());
    reply.status = statusOf(request);
    if (reply.status == OperationResult::OK) {
      reply.status = openSession(client, request, reply, gone);
    }
    record.lastSequenceId = request.sequenceId;
    record.lastReply = reply;
  }
  dropState(gone);
  if (reply.status == OperationResult::OK) {
    log().info("New NFS4 session has been created, sessionId [%1]",
               hexadecimal(reply.session.bytes));
  }
  return reply;
}

OperationResult NfsService::openSession(const std::shared_ptr<Nfs4Client>& client,
                                        const SessionRequest& request, SessionReply& reply,
                                        GoneClients& gone) {
  takeOutForgotten(gone);
  if (client->sessionCount() >= nfs4::kMaxSessionsOfClient ||
      (m_sessions.size() >= nfs4::kMaxSessions && !takeOutLeast(true, gone))) {
    return OperationResult::NoSpaceLeftOnDevice;
  }
  confirm(client, gone);
  // Neither is anything kept over a restart nor is a client called back: no flag is granted.
  reply.foreChannel = request.foreChannel;
  reply.backChannel = request.backChannel;
  const auto session = client->createSession(request.streamId, reply.foreChannel, m_profile);
  if (!m_replyBudget) m_replyBudget = std::make_shared<nfs4::ReplyBudget>(nfs4::kMaxKeptReplies);
  session->slots().setUp(reply.foreChannel.maxRequests, m_replyBudget);
  reply.session = session->id();
  m_sessions.insert_or_assign(session->id(), session);
  return OperationResult::OK;
}

// ---- Leases

bool NfsService::renewLease(std::uint64_t id) const {
  const auto client = findClientById(id);
  if (client) client->lease().renew(now());
  return client != nullptr;
}

bool NfsService::isSilent(std::uint64_t id) const {
  const auto client = findClientById(id);
  return !client || isSilent(*client, now());
}

bool NfsService::isSilent(const Nfs4Client& client, TimePoint now) const {
  return now - client.lease().heard() > std::chrono::seconds(m_profile.leaseSeconds);
}

bool NfsService::hasLostState(std::uint64_t id) const { return openFiles().wasRevoked(id); }

// Clients that nobody expects any more. All are looked at once in the time of a lease, when
// somebody comes.
void NfsService::takeOutForgotten(GoneClients& gone) {
  const TimePoint time = now();
  if (time < m_nextWalk) return;
  const std::chrono::seconds lease(m_profile.leaseSeconds);
  m_nextWalk = time + lease;
  const auto courtesy =
      std::max<std::chrono::seconds>(lease * nfs4::kCourtesyLeases, nfs4::kCourtesy);
  GoneClients forgotten;
  for (const auto& [id, client] : m_clients) {
    const auto patience = client->isConfirmed() ? courtesy : lease;
    if (time - client->lease().heard() > patience) forgotten.push_back(client);
  }
  for (const auto& client : forgotten) takeOut(client, gone);
}

// Makes room: those that have not confirmed themselves, or else those that are silent, go; of these
// the ones that were heard of the longest ago, several at a time, so that strangers who fill the
// table do not have it looked through for each of them. False when there is none.
bool NfsService::takeOutLeast(bool withSessions, GoneClients& gone) {
  const TimePoint time = now();
  if (time < m_nextSearch) return false;
  GoneClients silent;
  GoneClients unconfirmed;
  for (const auto& [id, client] : m_clients) {
    if (withSessions && client->sessionCount() == 0) continue;
    if (!client->isConfirmed()) {
      unconfirmed.push_back(client);
    } else if (isSilent(*client, time)) {
      silent.push_back(client);
    }
  }
  GoneClients& least = unconfirmed.empty() ? silent : unconfirmed;
  if (least.empty()) {
    m_nextSearch = time + nfs4::kSearchPause;
    return false;
  }
  const auto last =
      least.begin() + static_cast<std::ptrdiff_t>(std::min(least.size(), nfs4::kMadeRoom));
  std::ranges::partial_sort(least, last, {},
                            [](const auto& client) { return client->lease().heard(); });
  std::for_each(least.begin(), last, [&](const auto& client) { takeOut(client, gone); });
  return true;
}

}  // namespace nfslib
