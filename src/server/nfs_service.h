#pragma once

#include <nfslib/nfs_path.h>

#include "common/nfs_handle.h"
#include "common/profile.h"
#include "common/xdr_records.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
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
class Nfs4Client;
class Nfs4Session;
class NfsFileSystem;
struct NfsMountSpec;
namespace nfs4 {
class StateTable;
}

// What every program needs to know of the server, whatever the protocol: the exports, their
// numbers, and how a file handle leads back to one of them; and the clients and sessions of
// version 4.
//
// Thread-safe. The export lock guards the tables of exports, the client lock those of clients; the
// drain lock only carries the news that a view is gone. No two are held together.
class NfsService {
 public:
  using NumberedView = std::pair<std::uint32_t, std::shared_ptr<NfsFileSystem>>;

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

  // Empty when there is none.
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
  void destroySession(const sessionid& id);
  // Waits until no client of minor version 1 is left; throws std::runtime_error after 10 seconds.
  void waitOnDestroyClients();
  // What clients have open by stateids.
  nfs4::StateTable& openFiles() const;
  // Sessions let go of the objects of an export that was withdrawn; those that a COMPOUND keeps
  // beyond the deadline, later.
  void releaseObjects(std::uint32_t fileSystemId, std::chrono::steady_clock::time_point deadline);

 private:
  void makeRoomForClient();

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

  mutable std::mutex m_clientLock;  // guards the four fields below
  std::condition_variable m_clientGone;
  std::map<std::uint64_t, std::shared_ptr<Nfs4Client>> m_clients;
  std::unordered_map<std::string, std::shared_ptr<Nfs4Client>> m_clientsByOwner;
  std::map<sessionid, std::shared_ptr<Nfs4Session>> m_sessions;
  std::uint64_t m_clientsMade = 0;

  mutable std::once_flag m_openFilesMade;
  mutable std::shared_ptr<nfs4::StateTable> m_openFiles;  // made when it is asked for

  Profile m_profile = profileOf({});
  ServerIdentity m_identity = identityFor(m_profile);
  const std::uint32_t m_generation;
  const std::shared_ptr<LiveViews> m_liveViews;
};

}  // namespace nfslib
