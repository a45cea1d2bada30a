#pragma once

#include <nfslib/nfs_path.h>

#include "common/nfs_handle.h"
#include "common/profile.h"
#include "common/status.h"
#include "common/xdr_records.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace nfslib {

class FileSystem;
struct Invalidation;
class Nfs4Client;
class Nfs4Session;
class NfsFileSystem;
struct NfsMountSpec;
namespace nfs4 {
class ReplyBudget;
class StateTable;
struct ClientReply;
struct ClientRequest;
struct Principal;
struct SessionReply;
struct SessionRequest;
}  // namespace nfs4

// What every program needs to know of the server, whatever the protocol: the exports, their
// numbers, and how a file handle leads back to one of them; and the clients and sessions of
// version 4.
//
// Thread-safe. The export lock guards the tables of exports, the client lock those of clients; the
// drain lock only carries the news that a view is gone. No two are held together, and none while
// the table of what is open is asked, which may ask for a client in turn.
class NfsService {
 public:
  using NumberedView = std::pair<std::uint32_t, std::shared_ptr<NfsFileSystem>>;
  // Tells the time that leases are counted in.
  using LeaseClock = std::function<std::chrono::steady_clock::time_point()>;

  NfsService();
  ~NfsService();
  NfsService(const NfsService&) = delete;
  NfsService& operator=(const NfsService&) = delete;

  // How clients are served. Set before the first export, and before calls come.
  const Profile& profile() const { return m_profile; }
  void setProfile(const Profile& profile);
  // What this start of the server is known by.
  const ServerIdentity& identity() const { return m_identity; }
  // For another start, before calls come.
  void renewIdentity() { m_identity = identityFor(m_profile); }

  // Adds an export and returns whether it is the only one. A path that is taken throws
  // std::runtime_error and changes nothing.
  bool exportFileSystem(const NfsPath& path, FileSystem& fs, const NfsMountSpec& spec);
  // Withdraws an export and returns whether none is left. A path that is not exported throws
  // std::runtime_error. Requests in flight may still use the view: see waitForViews.
  bool removeExport(const NfsPath& path);
  // Withdraws all exports.
  void clearExports();
  // Has every export of `fs` forget what changed without it: see NfsServer::invalidate.
  void invalidate(const FileSystem& fs, const Invalidation& what);
  // Waits until the requests that use withdrawn views are done; false when they were not in time.
  bool waitForViews(std::chrono::steady_clock::time_point deadline);

  // The number of the export at `path`, if there is one.
  std::optional<std::uint32_t> findExport(const NfsPath& path) const;
  // In no particular order.
  std::vector<NfsPath> getExportPaths() const;
  // The second in which exports were last added or withdrawn, and a later one than the time before:
  // the time of the directory above them all.
  std::uint32_t exportsChanged() const;
  // The export at `path` or named by `handle`; std::runtime_error when there is none. The handle's
  // generation is the caller's to check.
  NumberedView getFileSystem(const NfsPath& path) const;
  NumberedView getFileSystem(const NfsHandle& handle) const;
  // The handle of the root directory of the export at `path`.
  NfsHandle getHandle(const NfsPath& path);
  // Whether another start of the server issued the handle.
  bool isStaleHandle(const NfsHandle& handle) const;
  // The second this service was started in; part of every handle that it issues.
  std::uint32_t getGeneration() const { return m_generation; }

  // ---- Clients and sessions of version 4. Defined in nfs4/client_registry.cpp.

  // Empty when there is none. By its id, where clients confirm themselves, one is found that has.
  std::shared_ptr<Nfs4Client> findClientByOwner(const std::string& ownerId) const;
  std::shared_ptr<Nfs4Client> findClientById(const unsigned long& id) const;
  std::shared_ptr<Nfs4Session> findSessionById(const sessionid& id) const;
  // A new client, whose id is the number of clients and one, or the next that no client has. It
  // takes the place of one of the same owner and minor version. When there are too many, one that
  // has no session goes; when all have, NfsOperationError(Resource) is thrown.
  std::shared_ptr<Nfs4Client> createClient(const ClientOwner& owner, unsigned int minorVersion);
  // With its sessions.
  void deleteClientId(unsigned long id);
  void deleteClientsOf(unsigned int minorVersion);
  // Cuts `channel` to what the session will keep to. Throws NfsOperationError(Resource) when there
  // are too many.
  std::shared_ptr<Nfs4Session> createSession(const std::shared_ptr<Nfs4Client>& client,
                                             std::uint64_t streamId, ChannelAttributes& channel);
  // False when there is none.
  bool destroySession(const sessionid& id);
  // Waits until no client of minor version 1 is left; throws std::runtime_error after 10 seconds.
  // Where clients are known to be silent, or have not confirmed themselves, they are not waited
  // for.
  void waitOnDestroyClients();
  // What clients have open by stateids.
  nfs4::StateTable& openFiles() const;
  // Sessions let go of the objects of an export that was withdrawn; those that a COMPOUND keeps
  // beyond the deadline, later.
  void releaseObjects(std::uint32_t fileSystemId, std::chrono::steady_clock::time_point deadline);

  // ---- The same for the modern profile. Defined in nfs4/client_records.cpp.

  // EXCHANGE_ID, RFC 8881 section 18.35.4.
  nfs::OperationResult identifyClient(const nfs4::ClientRequest& request, nfs4::ClientReply& reply);
  // CREATE_SESSION, RFC 8881 section 18.36.4; what is asked for again is answered again.
  nfs4::SessionReply createSession(const nfs4::SessionRequest& request);
  // DESTROY_CLIENTID, RFC 8881 section 18.50.
  nfs::OperationResult destroyClient(std::uint64_t id);
  // RECLAIM_COMPLETE of the whole client, RFC 8881 section 18.51.
  nfs::OperationResult completeReclaim(std::uint64_t id);
  // SETCLIENTID and SETCLIENTID_CONFIRM, RFC 7530 sections 16.33 and 16.34.
  nfs::OperationResult setClientId(const nfs4::ClientRequest& request, nfs4::ClientReply& reply);
  nfs::OperationResult confirmClientId(std::uint64_t id, const verifier4& confirmation,
                                       const nfs4::Principal& principal);

  // The client was heard of; false when it is not one that has confirmed itself. Sessions know the
  // lease of their client.
  bool renewLease(std::uint64_t id) const;
  // Whether the client was not heard of for the time of a lease, or is none: others may have what
  // it holds.
  bool isSilent(std::uint64_t id) const;
  // Whether others have had it, which the client does not know yet.
  bool hasLostState(std::uint64_t id) const;
  std::chrono::steady_clock::time_point now() const { return m_leaseClock(); }
  // Before calls come.
  void setLeaseClock(LeaseClock clock) { m_leaseClock = std::move(clock); }

 private:
  using OwnerKey = std::pair<unsigned, std::string>;  // minor version, owner's id
  // Those of one owner: who has started anew is a second client until that is confirmed.
  struct OwnerRecords {
    std::shared_ptr<Nfs4Client> confirmed;
    std::shared_ptr<Nfs4Client> unconfirmed;
  };
  // Taken out of the tables under the client lock. What they have open is dropped behind it, and
  // objects of the host go with the last holder.
  using GoneClients = std::vector<std::shared_ptr<Nfs4Client>>;

  void makeRoomForClient();
  void dropState(const GoneClients& gone);
  bool isInUseByAnother(const OwnerKey& key, const nfs4::Principal& principal) const;

  // ---- Under the client lock

  std::shared_ptr<Nfs4Client> addClient(const ClientOwner& owner, unsigned minorVersion,
                                        const nfs4::Principal& principal);
  void takeOut(const std::shared_ptr<Nfs4Client>& client, GoneClients& gone);
  OwnerRecords recordsOf(const OwnerKey& key) const;
  std::shared_ptr<Nfs4Client> addRecord(const nfs4::ClientRequest& request, const OwnerKey& key,
                                        GoneClients& gone);
  void confirm(const std::shared_ptr<Nfs4Client>& client, GoneClients& gone);
  nfs::OperationResult openSession(const std::shared_ptr<Nfs4Client>& client,
                                   const nfs4::SessionRequest& request, nfs4::SessionReply& reply,
                                   GoneClients& gone);
  bool isSilent(const Nfs4Client& client, std::chrono::steady_clock::time_point now) const;
  bool isWaitedFor(const Nfs4Client& client) const;
  void takeOutForgotten(GoneClients& gone);
  bool takeOutLeast(bool withSessions, GoneClients& gone);

  // Counts the views that are alive. Views hold it, so that one that outlives the service is safe.
  struct LiveViews {
    std::mutex lock;
    std::condition_variable changed;
    std::size_t count = 0;
  };

  void markExportsChanged();  // under m_exportLock

  mutable std::shared_mutex m_exportLock;  // guards the four fields below
  std::uint32_t m_exportsChanged = 0;
  std::uint32_t m_nextNumber = 1;  // never reused
  std::unordered_map<NfsPath, std::uint32_t> m_numbers;
  std::unordered_map<std::uint32_t, std::shared_ptr<NfsFileSystem>> m_views;

  mutable std::mutex m_clientLock;  // guards the eight fields below
  std::condition_variable m_clientGone;
  std::map<std::uint64_t, std::shared_ptr<Nfs4Client>> m_clients;
  std::unordered_map<std::string, std::shared_ptr<Nfs4Client>> m_clientsByOwner;
  std::map<sessionid, std::shared_ptr<Nfs4Session>> m_sessions;
  std::uint64_t m_clientsMade = 0;
  std::map<OwnerKey, OwnerRecords> m_owners;           // where clients confirm themselves
  std::chrono::steady_clock::time_point m_nextWalk;    // for clients to forget
  std::chrono::steady_clock::time_point m_nextSearch;  // for room
  std::shared_ptr<nfs4::ReplyBudget> m_replyBudget;    // made with the first session

  LeaseClock m_leaseClock = std::chrono::steady_clock::now;

  mutable std::once_flag m_openFilesMade;
  mutable std::shared_ptr<nfs4::StateTable> m_openFiles;  // made when it is asked for

  Profile m_profile = profileOf({});
  ServerIdentity m_identity = identityFor(m_profile);
  const std::uint32_t m_generation;
  const std::shared_ptr<LiveViews> m_liveViews;
};

}  // namespace nfslib
