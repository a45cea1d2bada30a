#pragma once

#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_server.h>

#include "server/nfs_service.h"
#include "server/server_mode.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace nfslib {

namespace rpc {
class RpcServer;
}

// The server of the process: the exports, and a thread that serves them while there are any.
//
// Locks, in their order: m_addressLock for the length of a whole operation of the host; inside it,
// briefly and one at a time, m_runningLock and m_stopLock. The server thread takes only the latter
// two.
//
// Hidden by hand: a nested class has the visibility of the public one around it.
class __attribute__((visibility("hidden"))) NfsServer::Impl : public NfsService {
 public:
  Impl();
  ~Impl();

  void setPolicy(const NfsServerPolicy& policy);
  void exportFileSystem(const NfsPath& path, FileSystem& fs, const NfsMountSpec& spec);
  void removeExport(const NfsPath& path);
  void reRunServer(const NfsMountSpec& spec);
  unsigned int getAddress() const;
  unsigned int getNfsPort() const;
  unsigned int getMountPort() const;
  static NfsServerStatistics getStatistics();
  // Stops the server and withdraws all exports; false when the server thread has not ended in time
  // and still uses this object.
  bool shutDown();

 private:
  void startServer();
  void stopServer();
  void waitForClientsOfLastExport();
  void removeAddress();
  bool usesAddressAlias() const;

  // ---- The server thread
  void runServer(const ServerMode& mode);
  void serve(const ServerMode& mode);
  std::unique_ptr<rpc::RpcServer> makeRpcServer(const ServerMode& mode);
  unsigned portOf(PortRole role) const;
  static bool isSystemPortmapServiceRunning();

  // ---- Handshakes between the two threads
  void waitReady();
  void notifyReady();
  void waitStopped();
  void notifyStopped(std::optional<std::string> failure);
  void waitStopRequest();
  void requestStop();

  mutable std::mutex
      m_addressLock;  // guards the six fields below; the server thread, which runs only
                      // while the lock's holder waits or nobody changes them, reads them
  std::thread m_serverThread;
  unsigned int m_address;
  unsigned short m_mountPort = 0;
  unsigned short m_nfsPort = 0;
  bool m_aliasAdded = false;
  NfsMountSpec m_settings;

  std::mutex m_runningLock;  // guards the three fields below
  std::condition_variable m_runningChanged;
  bool m_running = false;
  bool m_ended = true;  // the server thread has nothing more to do
  std::optional<std::string> m_failure;

  std::mutex m_stopLock;
  std::condition_variable m_stopChanged;
  bool m_stopRequested =
      false;  // written under m_stopLock; the transports' loops read it as they go
};

}  // namespace nfslib
