#pragma once

#include <nfslib/export.h>
#include <nfslib/nfs_server_statistics.h>

#include <memory>

namespace nfslib {

class FileSystem;
class NfsPath;
struct Invalidation;
struct NfsMountSpec;
struct NfsServerPolicy;

/// The one NFS server of the process. It runs while at least one tree is exported: the first export
/// starts it, removing the last one stops it.
///
/// A host that wants its tree as a local directory has no need of this class; a host that only
/// serves (to clients that mount by themselves) uses it directly:
///
///     NfsServer& server = NfsServer::instance();
///     server.exportFileSystem(NfsPath("/backup"), tree, spec);
///     ...
///     server.removeExport(NfsPath("/backup"));
///
/// All operations may be called from any thread of the host; those that start or stop the server
/// wait for each other. Failures are `std::runtime_error`s whose text names the step and the cause.
class NFSLIB_EXPORT NfsServer {
 public:
  /// The server of this process, made on first use.
  static NfsServer& instance();

  /// How the server is to behave towards its clients from its next start on; without it, as the
  /// classic profile has it. Throws when there are exports, and changes nothing then.
  void setPolicy(const NfsServerPolicy& policy);

  /// Publishes `fs` under `path` and, when it is the first export, starts the server with the
  /// ports, protocol, version and address that `spec` asks for; returns when clients can connect.
  ///
  /// `fs` is used, not owned: keep it alive until `removeExport` has returned. On failure nothing
  /// stays exported or running.
  void exportFileSystem(const NfsPath& path, FileSystem& fs, const NfsMountSpec& spec);
  /// Withdraws the export, waits until no request uses its tree any more (at most 10 seconds) and
  /// stops the server when it was the last one.
  void removeExport(const NfsPath& path);
  /// Stops the server and starts it again with `spec`; the exports stay.
  void reRunServer(const NfsMountSpec& spec);

  /// Tells that `fs` was changed by something else than the library. What is kept of the place is
  /// dropped in every export of `fs`, and in the modern profile clients are told of a change even
  /// when no time in the attributes has moved. Files that are open stay open. Does nothing when
  /// `fs` is not exported.
  ///
  /// `fs` is only compared with the trees that are exported, so it has to be the object that was
  /// given to `exportFileSystem`, not one behind it. No host call is made and no request waited
  /// for: any thread may call, also from within a call of the host, under locks of the host's own,
  /// and while exports come and go.
  void invalidate(const FileSystem& fs, const Invalidation& what);

  /// The IPv4 address served, in network byte order. Throws when the server is not running.
  unsigned int getAddress() const;
  /// The port of the NFS program, in host byte order. Throws when the server is not running.
  unsigned int getNfsPort() const;
  /// The port of the MOUNT program, in host byte order; 0 when there is none (NFS version 4 needs
  /// no MOUNT program). Throws when the server is not running.
  unsigned int getMountPort() const;

  /// What has been counted since the process began, over all starts of the server. Never waits for
  /// requests nor makes them wait, and may be asked for while the server is stopped.
  NfsServerStatistics getStatistics() const;
  /// Has `observer` told of each TCP connection from now on; an empty one ends that. The one before
  /// may still be called by a thread that is about to.
  void setConnectionObserver(NfsConnectionObserver observer);

  NfsServer(const NfsServer&) = delete;
  NfsServer& operator=(const NfsServer&) = delete;

 private:
  NfsServer();
  ~NfsServer();

  class Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace nfslib
