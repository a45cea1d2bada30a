#include "serve_command.h"

#include <nfslib/log.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>

#include "spdlog_sink.h"

#include <filesystem>
#include <iostream>
#include <stdexcept>

#include <arpa/inet.h>
#include <sys/resource.h>
#include <unistd.h>

namespace nfslib::tool {

namespace {

// An export for the time that it is served.
class Export {
 public:
  Export(const NfsPath& path, FileSystem& tree, const NfsMountSpec& spec) : m_path(path) {
    NfsServer::instance().exportFileSystem(path, tree, spec);
  }
  ~Export() {
    try {
      NfsServer::instance().removeExport(m_path);
    } catch (const std::exception& e) {
      std::cerr << "nfslib: " << e.what() << '\n';
    }
  }
  Export(const Export&) = delete;
  Export& operator=(const Export&) = delete;

 private:
  NfsPath m_path;
};

// For a human at a terminal: how to reach the share with a client that this machine has.
void printHint(const ServeOptions& options, const std::string& path, const std::string& address,
               unsigned nfsPort, unsigned mountPort) {
  if (isatty(STDERR_FILENO) == 0) return;
  const std::string ports = std::to_string(nfsPort), mount = std::to_string(mountPort);
  const bool isVersion4 = options.spec.version == 4;
  const bool isTcp = isVersion4 || options.spec.protocol == NfsMountSpec::Protocol::tcp;
  if (isTcp && hasProgram("mount.nfs")) {
    const std::string own = isVersion4 ? "vers=4" : "vers=3,nolock,mountport=" + mount;
    std::cerr << "Mount it, as root:  mount -t nfs -o " << own << ",proto=tcp,port=" << ports
              << (options.spec.writeEnabled ? "" : ",ro") << " '" << address << ':' << path
              << "' /mnt\n";
  }
  if (isTcp && !isVersion4 && hasProgram("nfs-ls")) {
    std::cerr << "List it:  nfs-ls -R 'nfs://" << address << path << "?nfsport=" << ports
              << "&mountport=" << mount << "'\n";
  }
  if (isTcp && !hasProgram("mount.nfs") && !hasProgram("nfs-ls")) {
    std::cerr << "This machine has no NFS client; the packages nfs-common and libnfs-utils bring "
                 "one each.\n";
  }
  std::cerr << "Press Ctrl-C to stop.\n";
}

}  // namespace

std::string dotted(unsigned address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

bool hasProgram(const char* name) {
  for (const char* directory : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/usr/local/bin/"}) {
    if (access((std::string(directory) + name).c_str(), X_OK) == 0) return true;
  }
  return false;
}

bool logsFromStart(const ServeOptions& options) {
  return !options.logLevel.empty() || !options.logFile.empty();
}

void installLog(const ServeOptions& options) {
  const std::string level = options.logLevel.empty() ? "warn" : options.logLevel;
  CNfsLibLogger::getInstance().setImpl(makeLogSink(level, options.logFile));
}

SourceOptions sourceOptions(const ServeOptions& options, const StopSignals& stopSignals) {
  return {.text = options.source,
          .writable = options.spec.writeEnabled,
          .archiveCache = options.archiveCache,
          .isStopped = [&stopSignals] { return stopSignals.hasCome(); }};
}

void serve(const ServeOptions& options) {
  const StopSignals stopSignals;
  raiseDescriptorLimit();
  if (logsFromStart(options)) installLog(options);
  const auto source = openSource(sourceOptions(options, stopSignals));
  if (!source) return;
  StatisticsReport report(options.report);
  {
    NfsServer& server = NfsServer::instance();
    server.setPolicy(options.policy);
    const Export published(NfsPath(source->exportPath), *source->tree, options.spec);
    if (!logsFromStart(options)) installLog(options);
    const std::string address = dotted(server.getAddress());
    const unsigned nfsPort = server.getNfsPort();
    const unsigned mountPort = server.getMountPort();

    std::cout << "export " << source->exportPath << "\naddress " << address << "\nnfs-port "
              << nfsPort << '\n';
    if (mountPort != 0) std::cout << "mount-port " << mountPort << '\n';
    std::cout << "ready" << std::endl;
    printHint(options, source->exportPath, address, nfsPort, mountPort);
    stopSignals.wait(report.meanwhile());
  }
  report.end();
  CNfsLibLogger::getInstance().resetImpl();
}

}  // namespace nfslib::tool
