// The half of NfsService that knows the clients of version 4 and their sessions.

#include "common/log.h"
#include "common/status.h"
#include "nfs4/client.h"
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

constexpr std::chrono::seconds kClientPatience{10};
constexpr std::size_t kMaxClients = 4096;
constexpr std::size_t kMaxSessions = 16'384;  // of all clients

void putLittleEndian(std::uint64_t value, std::byte* bytes) {
  for (int i = 0; i < 8; ++i) bytes[i] = static_cast<std::byte>(value >> (8 * i));
}

template <class Map, class Key>
auto findIn(const Map& map, const Key& key) {
  const auto at = map.find(key);
  return at == map.end() ? nullptr : at->second;
}

}  // namespace

Nfs4Client::Nfs4Client(std::uint64_t id, ClientOwner owner, unsigned minorVersion)
    : m_id(id), m_owner(std::move(owner)), m_minorVersion(minorVersion) {
  putLittleEndian(id, m_lastSessionId.bytes.data());
}

void Nfs4Client::incLastSessionId() {
  putLittleEndian(++m_sessionCounter, m_lastSessionId.bytes.data() + 8);
}

unsigned Nfs4Client::getSequenceId() const {
  const std::lock_guard lock(m_lock);
  return m_sequenceId;
}

bool Nfs4Client::isConfirmed() const {
  const std::lock_guard lock(m_lock);
  return m_confirmed;
}

Nfs4Client::Sessions Nfs4Client::getSessions() const {
  const std::lock_guard lock(m_lock);
  return m_sessions;
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
  m_sessions.erase(at);
}

std::shared_ptr<Nfs4Session> Nfs4Client::createSession(std::uint64_t streamId,
                                                       ChannelAttributes& channel,
                                                       const Profile& profile) {
  const std::lock_guard lock(m_lock);
  incLastSessionId();
  if (profile.countsSessions) ++m_sequenceId;
  auto session = std::make_shared<Nfs4Session>(m_lastSessionId, m_id, streamId);
  session->applyChannelAttributes(channel, profile.maxMessage);
  m_sessions.emplace(m_lastSessionId, session);
  m_confirmed = true;
  return session;
}

nfs4::StateTable& NfsService::openFiles() const {
  std::call_once(m_openFilesMade, [this] { m_openFiles = std::make_shared<nfs4::StateTable>(); });
  return *m_openFiles;
}

std::shared_ptr<Nfs4Client> NfsService::findClientByOwner(const std::string& ownerId) const {
  const std::lock_guard lock(m_clientLock);
  return findIn(m_clientsByOwner, ownerId);
}

std::shared_ptr<Nfs4Client> NfsService::findClientById(const unsigned long& id) const {
  const std::lock_guard lock(m_clientLock);
  return findIn(m_clients, id);
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
  std::uint64_t id = m_identity.firstClientId;
  id += m_profile.reusesClientIds ? m_clients.size() : m_clientsMade++;
  while (m_clients.contains(id)) ++id;
  auto client = std::make_shared<Nfs4Client>(id, owner, minorVersion);
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
  std::shared_ptr<Nfs4Client> gone;  // released after the lock, and with it open files of the host
  std::vector<std::shared_ptr<Nfs4Session>> sessions;
  {
    const std::lock_guard lock(m_clientLock);
    gone = findIn(m_clients, id);
    if (gone) {
      for (const auto& [sessionId, session] : gone->getSessions()) {
        sessions.push_back(session);
        m_sessions.erase(sessionId);
      }
      const auto owned = m_clientsByOwner.find(gone->getOwner().ownerId);
      if (owned != m_clientsByOwner.end() && owned->second == gone) m_clientsByOwner.erase(owned);
      m_clients.erase(id);
    }
    m_clientGone.notify_all();
  }
  openFiles().dropClient(id);
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

void NfsService::destroySession(const sessionid& id) {
  std::shared_ptr<Nfs4Session> gone;  // released after the lock
  const std::lock_guard lock(m_clientLock);
  gone = findIn(m_sessions, id);
  if (!gone) return;
  if (const auto client = findIn(m_clients, gone->clientId())) client->destroySession(id);
  m_sessions.erase(id);
}

void NfsService::waitOnDestroyClients() {
  // Those of minor version 0 have no way to say that they go.
  const auto allGone = [this] {
    return std::none_of(m_clients.begin(), m_clients.end(),
                        [](const auto& row) { return row.second->getMinorVersion() == 1; });
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
