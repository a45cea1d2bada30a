#include <nfslib/nfs_server.h>

#include "common/log.h"
#include "common/statistics.h"
#include "network/address.h"
#include "network/stop_flag.h"
#include "rpc/mount_program.h"
#include "rpc/portmap_program.h"
#include "rpc/rpc_header.h"
#include "rpc/rpc_server.h"
#include "server/host_commands.h"
#include "server/nfs_server_impl.h"
#include "server/ports.h"
#include "server/rpc_registration.h"
#include "server/scoped_cleanup_task.h"
#include "server/server_socket.h"

#include <chrono>
#include <exception>
#include <list>
#include <stdexcept>
#include <utility>

#include <sys/socket.h>

namespace nfslib {

namespace {

constexpr unsigned kNoAddress = 0xFFFFFFFF;
constexpr std::chrono::seconds kPatience{10};

// Keeps the cause inside, so that a caller can reach the plain sentence that began it.
[[noreturn]] void rethrow(const char* format, const std::exception& cause) {
  std::throw_with_nested(std::runtime_error(message(format, cause.what())));
}

unsigned protocolOf(Transport transport) {
  return transport == Transport::Tcp ? portmap::kTcp : portmap::kUdp;
}

}  // namespace

NfsServer::Impl::Impl() : m_address(kNoAddress) {
  CNfsLibLogger::getInstance();  // made first, so that it outlives the server
}

NfsServer::Impl::~Impl() = default;

void NfsServer::Impl::setPolicy(const NfsServerPolicy& policy) {
  const std::lock_guard lock(m_addressLock);
  if (!getExportPaths().empty()) {
    throw std::runtime_error(
        "The policy of the NFS server cannot be changed while file systems are exported. Set it "
        "before the first export.");
  }
  setProfile(profileOf(policy));
}

void NfsServer::Impl::exportFileSystem(const NfsPath& path, FileSystem& fs,
                                       const NfsMountSpec& spec) {
  const std::lock_guard lock(m_addressLock);
  try {
    modeFor(spec);
    const NfsMountSpec before = m_settings;
    m_settings = spec;
    if (!NfsService::exportFileSystem(path, fs, spec)) return;
    try {
      startServer();
    } catch (...) {
      m_settings = before;
      NfsService::removeExport(path);
      throw;
    }
  } catch (const std::exception& e) {
    rethrow("Failed to export NFS file system. Error [%1]", e);
  }
}

void NfsServer::Impl::removeExport(const NfsPath& path) {
  const std::lock_guard lock(m_addressLock);
  try {
    const auto number = findExport(path);
    if (number) waitForClientsOfLastExport();
    const bool isLast = NfsService::removeExport(path);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    releaseObjects(*number, deadline);
    if (isLast) {
      stopServer();
      // Nobody waits again for those that did not say goodbye.
      for (const unsigned minorVersion : {0U, 1U}) deleteClientsOf(minorVersion);
    }
    if (!waitForViews(deadline)) {
      log().warn("Requests still use the tree of the removed export [%1].", path);
    }
  } catch (const std::exception& e) {
    rethrow("Exported NFS file system has not been removed. Error [%1]", e);
  }
}

// Clients that share a server with other exports stay; those of the last one get the time to say
// goodbye. A client that does not is no reason to go on serving.
void NfsServer::Impl::waitForClientsOfLastExport() {
  if (getExportPaths().size() > 1) return;
  try {
    waitOnDestroyClients();
  } catch (const std::exception& e) {
    log().warn("The server stops while clients use it: [%1]", e.what());
  }
}

void NfsServer::Impl::reRunServer(const NfsMountSpec& spec) {
  const std::lock_guard lock(m_addressLock);
  try {
    modeFor(spec);
    waitOnDestroyClients();
    stopServer();
    m_settings = spec;
    startServer();
  } catch (const std::exception& e) {
    rethrow("Unable to restart NFS server. Error: [%1]", e);
  }
}

unsigned int NfsServer::Impl::getAddress() const {
  const std::lock_guard lock(m_addressLock);
  if (m_address == kNoAddress) {
    throw std::runtime_error("NFS server is not listening on any network address.");
  }
  return m_address;
}

unsigned int NfsServer::Impl::getNfsPort() const {
  const std::lock_guard lock(m_addressLock);
  if (m_nfsPort == 0) throw std::runtime_error("NFS server has no running mount service.");
  return m_nfsPort;
}

unsigned int NfsServer::Impl::getMountPort() const {
  const std::lock_guard lock(m_addressLock);
  if (m_nfsPort == 0) throw std::runtime_error("NFS server has no running mount service.");
  return modeFor(m_settings).hasMountProgram ? m_mountPort : 0;
}

bool NfsServer::Impl::shutDown() {
  const std::lock_guard lock(m_addressLock);
  stopServer();
  clearExports();
  return !m_serverThread.joinable();
}

bool NfsServer::Impl::usesAddressAlias() const {
  return !m_settings.skipAddressAlias && m_settings.version == 3;
}

void NfsServer::Impl::startServer() {
  try {
    if (m_serverThread.joinable()) {
      if (!network::isSet(m_stopRequested)) return;
      waitStopped();  // it was told to stop, and took its time
      m_serverThread.join();
      network::setFlag(m_stopRequested, false);
    }
    const ServerMode& mode = modeFor(m_settings);
    renewIdentity();
    m_address = address::getUnusedLocalAddress(!usesAddressAlias());
    log().info("Starting NFS server on [%1].", address::str(m_address));
    if (usesAddressAlias()) {
      system::addAddress(system::hostCommands().loopbackInterface, m_address);
      m_aliasAdded = true;
    }
    {
      const std::lock_guard lock(m_runningLock);
      m_ended = false;
      m_failure.reset();
    }
    m_serverThread = std::thread([this, &mode] { runServer(mode); });
    waitReady();
  } catch (const std::exception& e) {
    const auto failure = std::current_exception();
    stopServer();
    removeAddress();
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& known) {
      rethrow("Failed to start NFS server. Error [%1]", known);
    }
  }
}

void NfsServer::Impl::stopServer() {
  if (!m_serverThread.joinable()) return;
  log().info("Stopping NFS server on [%1].", address::str(m_address));
  try {
    requestStop();
    waitStopped();
    m_serverThread.join();
    removeAddress();
    m_mountPort = m_nfsPort = 0;
    network::setFlag(m_stopRequested, false);
  } catch (std::exception& e) {
    removeAddress();
    log().err("NFS server is shutting down in a background. Error [%1]", e.what());
  }
}

void NfsServer::Impl::removeAddress() {
  if (m_aliasAdded) system::removeAddress(system::hostCommands().loopbackInterface, m_address);
  m_aliasAdded = false;
  m_address = kNoAddress;
}

void NfsServer::Impl::runServer(const ServerMode& mode) {
  std::optional<std::string> failure;
  try {
    serve(mode);
  } catch (std::exception& e) {
    log().errWith(e, "NFS server failed.");
    failure = e.what();
  } catch (...) {
    log().err("NFS server failed.");
    failure = "unknown error";
  }
  notifyStopped(std::move(failure));
}

void NfsServer::Impl::serve(const ServerMode& mode) {
  const int type = mode.transport == Transport::Tcp ? SOCK_STREAM : SOCK_DGRAM;
  const unsigned mountPort = address::getMountProgramPort(type, m_settings.useMountPort, 0);
  m_mountPort = static_cast<unsigned short>(mountPort);
  m_nfsPort = static_cast<unsigned short>(
      address::getNfsProgramPort(type, m_settings.useNfsPort, mountPort));

  const auto rpcServer = makeRpcServer(mode);
  std::list<ServerSocket> sockets;
  const bool systemPortmap = isSystemPortmapServiceRunning();
  const auto listenOn = [&](std::span<const Listener> listeners) {
    for (const Listener& listener : listeners) {
      try {
        sockets.emplace_back(listener, m_address, portOf(listener.port), *rpcServer);
      } catch (const ServerSocket::PortTaken& e) {
        // Some port-map services share port 111 with nobody, on no address. Clients that are told
        // the ports do not miss it.
        if (!systemPortmap || listener.port != PortRole::Portmap) throw;
        log().warn("The system's port-map service keeps port 111: [%1]", e.what());
      }
    }
  };
  listenOn(mode.listeners);
  if (!systemPortmap) listenOn(mode.ownPortmapListeners);

  const utility::ScopedCleanupTask stopServices(
      [&] {
        for (ServerSocket& socket : sockets) socket.stop();
        log().info(mode.stopped);
      },
      "Stop services task");
  for (ServerSocket& socket : sockets) socket.start(m_stopRequested);
  std::optional<utility::ScopedCleanupTask> unbind;
  if (systemPortmap && mode.registersWithSystem) {
    RpcRegistration registration{m_address, m_nfsPort, m_mountPort, m_settings.version, {}};
    bindRpcServices(registration);
    unbind.emplace([registration] { unbindRpcServices(registration); }, "Unbind RPC services");
  }
  log().info(mode.started);
  notifyReady();
  waitStopRequest();
}

std::unique_ptr<rpc::RpcServer> NfsServer::Impl::makeRpcServer(const ServerMode& mode) {
  auto portMap = std::make_unique<portmap::PortMapProgram>(
      profile(), [own = m_address](unsigned port) { return address::rpcStr(own, port); });
  for (const PortMapping& mapping : mode.mappings) {
    portMap->map(mapping.program, portOf(mapping.port), protocolOf(mapping.transport),
                 m_settings.version);
  }
  auto server = std::make_unique<rpc::RpcServer>();
  server->setProfile(profile());
  server->setAllowedGroupId(m_settings.allowedGroupId);
  server->registerProgram(rpc::kPortmapProgram, std::move(portMap));
  if (mode.hasMountProgram) {
    server->registerProgram(rpc::kMountProgram, std::make_unique<mount::MountProgram>(*this));
  }
  server->registerProgram(rpc::kNfsProgram, mode.makeNfsProgram(*this, m_settings.writeEnabled));
  // Requests that change nothing need no order among them.
  if (!m_settings.writeEnabled) server->allowParallelRequests();
  return server;
}

unsigned NfsServer::Impl::portOf(PortRole role) const {
  switch (role) {
    case PortRole::Mount:
      return m_mountPort;
    case PortRole::Nfs:
      return m_nfsPort;
    case PortRole::Portmap:
      break;
  }
  return portmap::kPort;
}

bool NfsServer::Impl::isSystemPortmapServiceRunning() {
  return !address::isPortUnused(portmap::kPort, "0.0.0.0", SOCK_STREAM);
}

void NfsServer::Impl::waitReady() {
  std::unique_lock lock(m_runningLock);
  if (!m_runningChanged.wait_for(lock, kPatience, [this] { return m_running || m_ended; })) {
    throw std::runtime_error("NFS server failed to start in a timely fashion.");
  }
  if (m_failure) throw std::runtime_error(*m_failure);
}

void NfsServer::Impl::notifyReady() {
  {
    const std::lock_guard lock(m_runningLock);
    m_running = true;
  }
  m_runningChanged.notify_one();
}

void NfsServer::Impl::waitStopped() {
  std::unique_lock lock(m_runningLock);
  if (!m_runningChanged.wait_for(lock, kPatience, [this] { return m_ended; })) {
    throw std::runtime_error("NFS server has not been stopped in a timely fashion.");
  }
}

void NfsServer::Impl::notifyStopped(std::optional<std::string> failure) {
  // Notified under the lock: whoever waits may be about to destroy the condition.
  const std::lock_guard lock(m_runningLock);
  m_running = false;
  m_ended = true;
  m_failure = std::move(failure);
  m_runningChanged.notify_one();
}

void NfsServer::Impl::waitStopRequest() {
  std::unique_lock lock(m_stopLock);
  m_stopChanged.wait(lock, [this] { return network::isSet(m_stopRequested); });
}

void NfsServer::Impl::requestStop() {
  {
    const std::lock_guard lock(m_stopLock);
    network::setFlag(m_stopRequested, true);
  }
  m_stopChanged.notify_one();
}

NfsServer::NfsServer() : m_impl(std::make_unique<Impl>()) {}

NfsServer::~NfsServer() {
  // A thread that a host keeps busy beyond all patience goes on using the server while the process
  // ends.
  if (!m_impl->shutDown()) static_cast<void>(m_impl.release());
}

NfsServer& NfsServer::instance() {
  static NfsServer server;
  return server;
}

void NfsServer::setPolicy(const NfsServerPolicy& policy) { m_impl->setPolicy(policy); }
void NfsServer::exportFileSystem(const NfsPath& path, FileSystem& fs, const NfsMountSpec& spec) {
  m_impl->exportFileSystem(path, fs, spec);
}
void NfsServer::removeExport(const NfsPath& path) { m_impl->removeExport(path); }
void NfsServer::reRunServer(const NfsMountSpec& spec) { m_impl->reRunServer(spec); }
void NfsServer::invalidate(const FileSystem& fs, const Invalidation& what) {
  m_impl->invalidate(fs, what);
}
unsigned int NfsServer::getAddress() const { return m_impl->getAddress(); }
unsigned int NfsServer::getNfsPort() const { return m_impl->getNfsPort(); }
unsigned int NfsServer::getMountPort() const { return m_impl->getMountPort(); }
NfsServerStatistics NfsServer::getStatistics() const { return m_impl->getStatistics(); }
void NfsServer::setConnectionObserver(NfsConnectionObserver observer) {
  statistics::setObserver(std::move(observer));
}

}  // namespace nfslib
