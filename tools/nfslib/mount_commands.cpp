#include "mount_commands.h"

#include <nfslib/log.h>
#include <nfslib/nfs_mounter.h>
#include <nfslib/nfs_server.h>

#include "background.h"
#include "mount_table.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nfslib::tool {

namespace {

bool kernelHasNfs() {
  std::ifstream known("/proc/filesystems");
  for (std::string line; std::getline(known, line);) {
    if (line == "nodev\tnfs") return true;
  }
  return false;
}

// What would fail later, and in the words of others.
void checkMachine(const std::string& mountPoint) {
  if (geteuid() != 0) {
    throw std::runtime_error(
        "Only root can mount; run it with sudo, or serve the tree to a client that needs no mount "
        "('nfslib serve').");
  }
  if (!hasProgram("mount.nfs")) {
    throw std::runtime_error(
        "This machine has no NFS client; install it with 'apt-get install nfs-common' (or the "
        "package of that kind that your system has).");
  }
  if (isMountPoint(mountPoint)) {
    throw std::runtime_error("Something is mounted on " + mountPoint +
                             " already; unmount it first, or choose another directory.");
  }
  std::error_code error;
  const auto status = std::filesystem::status(mountPoint, error);
  if (status.type() != std::filesystem::file_type::directory) {
    throw std::runtime_error(mountPoint + (status.type() == std::filesystem::file_type::not_found
                                               ? " does not exist; create the directory first."
                                               : " is not a directory; name one to mount on."));
  }
}

// Runs a program in silence, without a shell. Whether it ended with status 0.
bool succeeds(std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, STDOUT_FILENO);
    dup2(nothing, STDERR_FILENO);
    execvp(arguments.front(), arguments.data());
    _exit(127);
  }
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

// What a process that is gone could not clear away itself. Registrations at the system's port-map
// service are left alone: they do not tell whose they are.
void clearRemains(const MountRecord& record) {
  if (isMountPoint(record.mountPoint) && !succeeds({"umount", "-f", "-l", record.mountPoint})) {
    throw std::runtime_error("The process that served " + record.mountPoint +
                             " is gone, and umount could not take the mount away.");
  }
  // While it is there no other process takes it, so it is still the one that was added. It may be
  // gone already.
  if (!record.alias.empty()) succeeds({"ip", "address", "del", record.alias + "/32", "dev", "lo"});
  std::filesystem::remove(record.file);
}

// False when the process still runs after that time. One that its parent has not asked about yet
// runs no more.
bool waitForEnd(int process, std::chrono::milliseconds patience) {
  pollfd ended{process, POLLIN, 0};
  return poll(&ended, 1, static_cast<int>(patience.count())) == 1;
}

const char* stateOf(const MountRecord& record) {
  if (record.isServed) return "served";
  return isMountPoint(record.mountPoint) ? "process gone, still mounted" : "process gone";
}

}  // namespace

void mount(const MountOptions& options) {
  const std::string mountPoint = absoluteMountPoint(options.mountPoint);
  checkMachine(mountPoint);
  std::optional<Background> background;
  if (options.inBackground) background.emplace();
  const StopSignals stopSignals;
  raiseDescriptorLimit();
  if (logsFromStart(options.serve)) installLog(options.serve);
  const auto source = openSource(sourceOptions(options.serve, stopSignals));
  if (!source) return;
  StatisticsReport report(options.serve.report);
  {
    std::optional<RecordedMount> record;  // outlives the mount
    std::optional<NfsMounter> mounter;
    try {
      NfsServer::instance().setPolicy(options.serve.policy);
      mounter.emplace(mountPoint, *source->tree, options.serve.spec, nullptr);
    } catch (const std::exception&) {
      if (kernelHasNfs()) throw;
      throw std::runtime_error(
          "The kernel of this machine has no NFS client (the module nfs). Serve the tree to a "
          "client "
          "that brings its own, such as libnfs ('nfslib serve').");
    }
    if (!logsFromStart(options.serve)) installLog(options.serve);
    const bool isVersion3 = NfsServer::instance().getMountPort() != 0;
    const bool hasAlias = isVersion3 && !options.serve.spec.skipAddressAlias;
    const std::string address = dotted(NfsServer::instance().getAddress());
    record.emplace(MountRecord{.source = options.serve.source,
                               .mountPoint = mountPoint,
                               .version = isVersion3 ? 3U : 4U,
                               .pid = getpid(),
                               .alias = hasAlias ? address : "",
                               .isServed = true,
                               .file = {}});
    if (isVersion3 && options.serve.spec.version != 3) {
      std::cerr << "nfslib: NFS version 4 could not be mounted; this is version 3.\n";
    }
    std::cout << "mounted " << options.mountPoint << std::endl;
    if (background) background->ready();
    stopSignals.waitUnless([&] { return !isMountPoint(mountPoint); }, report.meanwhile());
    // Somebody else has unmounted: that the library cannot do so any more is nobody's concern.
    if (!logsFromStart(options.serve) && !isMountPoint(mountPoint))
      CNfsLibLogger::getInstance().resetImpl();
  }
  report.end();
}

void unmount(const std::string& mountPoint) {
  using namespace std::chrono_literals;
  const std::string path = absoluteMountPoint(mountPoint);
  const auto records = recordedMounts();
  const auto record = std::find_if(records.begin(), records.end(), [&](const MountRecord& known) {
    return known.mountPoint == path;
  });
  if (record == records.end()) {
    throw std::runtime_error("Nothing is mounted on " + path +
                             " through this program; 'nfslib list' shows what is.");
  }
  if (geteuid() != 0) {
    throw std::runtime_error("Only root can end the mount on " + path + "; run it with sudo.");
  }
  if (!record->isServed) return clearRemains(*record);
  const int process = static_cast<int>(syscall(SYS_pidfd_open, record->pid, 0));
  if (process < 0) return;  // it has just ended
  kill(record->pid, SIGTERM);
  const bool ended = waitForEnd(process, 1min);
  close(process);
  if (!ended) {
    throw std::runtime_error("Process " + std::to_string(record->pid) +
                             " has not ended its mount on " + path + " within a minute.");
  }
}

void list() {
  std::cout << "SOURCE\tMOUNT POINT\tVERSION\tPROCESS\tSTATE\n";
  for (const MountRecord& record : recordedMounts()) {
    std::cout << record.source << '\t' << record.mountPoint << '\t' << record.version << '\t'
              << record.pid << '\t' << stateOf(record) << '\n';
  }
}

}  // namespace nfslib::tool
