// The half of NfsService that knows the clients of version 4 and their sessions.

#include "common/log.h"
#include "common/status.h"
#include "nfs4/client.h"
#include "nfs4/client_limits.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/read_write_directory_cache.h"
#include "nfs4/session.h"
#include "nfs4/state_table.h"
#include "server/nfs_service.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace nfslib {

namespace {

using nfs4::kMaxClients;
using nfs4::kMaxSessions;

constexpr std::chrono::seconds kClientPatience{10};

void putLittleEndian(std::uint64_t value, std::byte* bytes) {
  for (int i = 0; i < 8; ++i) bytes[i] = static_cast<std::byte>(value >> (8 * i));
}

template <class Map, class Key>
auto findIn(const Map& map, const Key& key) {
  const auto at = map.find(key);
  return at == map.end() ? nullptr : at->second;
}

}  // namespace

Nfs4Client::Nfs4Client(std::uint64_t id, ClientOwner owner, unsigned minorVersion,
                       const nfs4::Principal& principal, nfs4::Lease::Clock::time_point now)
    : m_id(id),
      m_owner(std::move(owner)),
      m_minorVersion(minorVersion),
      m_principal(principal),
      m_lease(std::make_shared<nfs4::Lease>(now)) {
  putLittleEndian(id, m_lastSessionId.bytes.data());
}

void Nfs4Client::incLastSessionId() {
  putLittleEndian(++m_sessionCounter, m_lastSessionId.bytes.data() + 8);
}

bool Nfs4Client::isConfirmed() const {
  const std::lock_guard lock(m_lock);
  return m_confirmed;
}

void Nfs4Client::confirm() {
  const std::lock_guard lock(m_lock);
  m_confirmed = true;
}

Nfs4Client::Sessions Nfs4Client::getSessions() const {
  const std::lock_guard lock(m_lock);
  return m_sessions;
}

std::size_t Nfs4Client::sessionCount() const {
  const std::lock_guard lock(m_lock);
  return m_sessions.size();
}

sessionid Nfs4Client::getLastSessionId() const {
  const std::lock_guard lock(m_lock);
  return m_lastSessionId;
}

void Nfs4Client::destroySession(const sessionid& id) {
  std::shared_ptr<Nfs4Session> gone;  // released after the lock
  const std::lock_guard lock(m_lock);
  const auto at = m_sessions.find(id);
  if (at == m_sessions.end()) return;
  gone = std::move(at->second);
  gone->setGone();
  m_sessions.erase(at);
}

std::shared_ptr<Nfs4Session> Nfs4Client::createSession(std::uint64_t streamId,
                                                       ChannelAttributes& channel,
                                                       const Profile& profile) {
  const std::lock_guard lock(m_lock);
  incLastSessionId();
  auto session = std::make_shared<Nfs4Session>(m_lastSessionId, m_id, streamId, m_lease);
  session->applyChannelAttributes(channel, profile);
  m_sessions.emplace(m_lastSessionId, session);
  m_confirmed = true;
  return session;
}

nfs4::StateTable& NfsService::openFiles() const {
  std::call_once(m_openFilesMade, [this] {
    m_openFiles = std::make_shared<nfs4::StateTable>();
    m_openFiles->setSilence([this](std::uint64_t client) { return isSilent(client); });
  });
  return *m_openFiles;
}

std::shared_ptr<Nfs4Client> NfsService::findClientByOwner(const std::string& ownerId) const {
  const std::lock_guard lock(m_clientLock);
  return findIn(m_clientsByOwner, ownerId);
}

std::shared_ptr<Nfs4Client> NfsService::findClientById(const unsigned long& id) const {
  const std::lock_guard lock(m_clientLock);
  auto client = findIn(m_clients, id);
  if (m_profile.confirmsClients && client && !client->isConfirmed()) return nullptr;
  return client;
}

std::shared_ptr<Nfs4Session> NfsService::findSessionById(const sessionid& id) const {
  const std::lock_guard lock(m_clientLock);
  return findIn(m_sessions, id);
}

std::shared_ptr<Nfs4Client> NfsService::createClient(const ClientOwner& owner,
                                                     unsigned int minorVersion) {
  // One of the other minor version stays, under its id: it may be a live client of the same name.
  const auto before = findClientByOwner(owner.ownerId);
  if (before && before->getMinorVersion() == minorVersion) deleteClientId(before->getId());
  makeRoomForClient();
  const std::lock_guard lock(m_clientLock);
  return addClient(owner, minorVersion, {});
}

std::shared_ptr<Nfs4Client> NfsService::addClient(const ClientOwner& owner, unsigned minorVersion,
                                                  const nfs4::Principal& principal) {
  std::uint64_t id = m_identity.firstClientId;
  id += m_profile.reusesClientIds ? m_clients.size() : m_clientsMade++;
  while (m_clients.contains(id)) ++id;
  auto client = std::make_shared<Nfs4Client>(id, owner, minorVersion, principal, now());
  m_clients.insert_or_assign(id, client);
  m_clientsByOwner.insert_or_assign(owner.ownerId, client);
  return client;
}

void NfsService::makeRoomForClient() {
  std::uint64_t unused = 0;
  {
    const std::lock_guard lock(m_clientLock);
    if (m_clients.size() < kMaxClients) return;
    const auto row = std::find_if(m_clients.begin(), m_clients.end(), [](const auto& client) {
      return client.second->getSessions().empty();
    });
    if (row == m_clients.end()) throw nfs::NfsOperationError(nfs::OperationResult::Resource);
    unused = row->first;
  }
  deleteClientId(unused);
}

void NfsService::deleteClientId(unsigned long id) {
  GoneClients gone;  // released after the lock, and with them open files of the host
  {
    const std::lock_guard lock(m_clientLock);
    if (const auto client = findIn(m_clients, id)) takeOut(client, gone);
  }
  dropState(gone);
}

void NfsService::takeOut(const std::shared_ptr<Nfs4Client>& client, GoneClients& gone) {
  gone.push_back(client);
  for (const auto& [sessionId, session] : client->getSessions()) {
    session->setGone();
    m_sessions.erase(sessionId);
  }
  const std::string& owner = client->getOwner().ownerId;
  const auto named = m_clientsByOwner.find(owner);
  if (named != m_clientsByOwner.end() && named->second == client) m_clientsByOwner.erase(named);
  const auto known = m_owners.find({client->getMinorVersion(), owner});
  if (known != m_owners.end()) {
    auto& [confirmed, unconfirmed] = known->second;
    if (confirmed == client) confirmed.reset();
    if (unconfirmed == client) unconfirmed.reset();
    if (!confirmed && !unconfirmed) m_owners.erase(known);
  }
  m_clients.erase(client->getId());
  m_clientGone.notify_all();
}

void NfsService::dropState(const GoneClients& gone) {
  for (const auto& client : gone) openFiles().dropClient(client->getId());
}

void NfsService::deleteClientsOf(unsigned int minorVersion) {
  std::vector<std::uint64_t> ids;
  {
    const std::lock_guard lock(m_clientLock);
    for (const auto& [id, client] : m_clients) {
      if (client->getMinorVersion() == minorVersion) ids.push_back(id);
    }
  }
  for (const std::uint64_t id : ids) deleteClientId(id);
}

std::shared_ptr<Nfs4Session> NfsService::createSession(const std::shared_ptr<Nfs4Client>& client,
                                                       std::uint64_t streamId,
                                                       ChannelAttributes& channel) {
  std::shared_ptr<Nfs4Session> session;
  {
    const std::lock_guard lock(m_clientLock);
    if (m_sessions.size() >= kMaxSessions) {
      throw nfs::NfsOperationError(nfs::OperationResult::Resource);
    }
    session = client->createSession(streamId, channel, m_profile);
    m_sessions.insert_or_assign(session->id(), session);
  }
  log().info("New NFS4 session has been created, sessionId [%1]", hexadecimal(session->id().bytes));
  return session;
}

bool NfsService::destroySession(const sessionid& id) {
  std::shared_ptr<Nfs4Session> gone;  // released after the lock
  const std::lock_guard lock(m_clientLock);
  gone = findIn(m_sessions, id);
  if (!gone) return false;
  if (const auto client = findIn(m_clients, gone->clientId())) client->destroySession(id);
  m_sessions.erase(id);
  return true;
}

bool NfsService::isWaitedFor(const Nfs4Client& client) const {
  if (client.getMinorVersion() != 1) return false;
  return !m_profile.confirmsClients || (client.isConfirmed() && !isSilent(client, now()));
}

void NfsService::waitOnDestroyClients() {
  // Those of minor version 0 have no way to say that they go.
  const auto allGone = [this] {
    return std::none_of(m_clients.begin(), m_clients.end(),
                        [this](const auto& row) { return isWaitedFor(*row.second); });
  };
  std::unique_lock lock(m_clientLock);
  if (!m_clientGone.wait_for(lock, kClientPatience, allGone)) {
    throw std::runtime_error("NFS client was not destroyed in a timely fashion.");
  }
}

void NfsService::releaseObjects(std::uint32_t fileSystemId,
                                std::chrono::steady_clock::time_point deadline) {
  std::vector<std::shared_ptr<Nfs4Session>> sessions{Nfs4Session::getDefaultSession()};
  {
    const std::lock_guard lock(m_clientLock);
    for (const auto& [id, session] : m_sessions) sessions.push_back(session);
  }
  nfs4::ReadWriteDirectoryCache::instance().release(fileSystemId);
  openFiles().dropFileSystem(fileSystemId);
  for (const auto& session : sessions) session->releaseObjects(fileSystemId, deadline);
}

}  // namespace nfslib
