// nfslib: serves a directory, an archive, or a tree in memory, over NFS, and mounts it.

#include "mount_commands.h"
#include "serve_command.h"

#include <exception>
#include <iostream>
#include <map>
#include <string>

#include <CLI/CLI.hpp>
#include <grp.h>
#include <unistd.h>

namespace {

using nfslib::NfsMountSpec;

constexpr int kFailed = 1;
constexpr int kBadUsage = 2;

// A user needs the plain cause, not the list of steps that it passed through.
std::string innermost(const std::exception& e) {
  try {
    std::rethrow_if_nested(e);
  } catch (const std::exception& cause) {
    return innermost(cause);
  } catch (...) {  // NOLINT(bugprone-empty-catch): not ours; what we have is the best there is
  }
  return e.what();
}

// A message on one line.
std::string oneLine(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  for (char& c : text) {
    if (c == '\n') c = ' ';
  }
  return text;
}

int groupId(const std::string& group) {
  int id = 0;
  if (CLI::detail::lexical_cast(group, id)) return id;
  if (const struct group* entry = getgrnam(group.c_str())) return static_cast<int>(entry->gr_gid);
  throw std::runtime_error("There is no group '" + group + "' on this system.");
}

// What only the command line knows of the options.
struct RawOptions {
  std::string group;
  std::string archiveCache;
  bool alias = false;
  bool classic = false;
};

void addServeOptions(CLI::App& command, nfslib::tool::ServeOptions& options, RawOptions& raw) {
  NfsMountSpec& spec = options.spec;
  command
      .add_option("SOURCE", options.source,
                  "A directory, an archive file, or memory[:SIZE] (default size 256M)")
      ->required();
  command.add_flag("--rw", spec.writeEnabled, "Let clients change the tree");
  command.add_option("--nfs-version", spec.version, "3 or 4 (default: 3 as root, 4 otherwise)")
      ->check(CLI::IsMember({3, 4}));
  const std::map<std::string, NfsMountSpec::Protocol> protocols{
      {"tcp", NfsMountSpec::Protocol::tcp}, {"udp", NfsMountSpec::Protocol::udp}};
  command.add_option("--proto", spec.protocol, "tcp (default) or udp")
      ->transform(CLI::CheckedTransformer(protocols));
  command.add_option("--nfs-port", spec.useNfsPort, "Port of NFS (default: a free one from 33049)")
      ->check(CLI::Range(1, 65535));
  command
      .add_option("--mount-port", spec.useMountPort,
                  "Port of MOUNT (default: a free one from 33050)")
      ->check(CLI::Range(1, 65535));
  command.add_flag("--alias", raw.alias,
                   "Serve on a loopback address of its own (version 3, root)");
  command.add_flag("--classic", raw.classic,
                   "Serve as clients of old expect it (docs/profiles.md)");
  command
      .add_option("--lease", options.policy.leaseSeconds,
                  "Seconds that a client of version 4 may be silent (not with --classic)")
      ->check(CLI::Range(1, 3600));
  command.add_option("--group", raw.group,
                     "Group, by name or number, whose members may use the export");
  command.add_option("--max-open-files", spec.maxOpenFiles, "Keep up to twice as many files open")
      ->check(CLI::Range(1, 1'000'000));
  command.add_option("--rsize", spec.rsize, "Bytes that a local mount asks for in one READ")
      ->check(CLI::Range(1024, 1'048'576));
  command.add_option("--archive-cache", raw.archiveCache,
                     "Memory, such as 64M, for what an archive decodes (default: 256M)");
  command.add_option("--log-level", options.logLevel, "error, warn (default), info or debug")
      ->check(CLI::IsMember({"error", "warn", "info", "debug"}));
  command.add_option("--log-file", options.logFile, "Append the log to a file");
  command.add_flag(
      "-v,--verbose", options.report.isVerbose,
      "Tell of each connection, and the statistics at the end (at SIGUSR1 in any case)");
  command.add_option("--stats-file", options.report.statisticsFile,
                     "Keep the statistics in a file, in the text format of Prometheus");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Serves a directory, an archive, or a tree in memory, over NFS, and mounts it."};
  app.require_subcommand(1);
  nfslib::tool::MountOptions options;
  NfsMountSpec& spec = options.serve.spec;
  spec.maxOpenFiles = 128;
  spec.version = geteuid() == 0 ? 3 : 4;
  RawOptions raw;

  CLI::App* serve = app.add_subcommand("serve", "Serve SOURCE until SIGINT or SIGTERM");
  addServeOptions(*serve, options.serve, raw);
  CLI::App* mount =
      app.add_subcommand("mount", "Mount SOURCE on MOUNTPOINT until SIGINT or SIGTERM");
  addServeOptions(*mount, options.serve, raw);
  mount->add_option("MOUNTPOINT", options.mountPoint, "An existing directory")->required();
  mount->add_flag("--daemon", options.inBackground, "Go to the background once it is mounted");
  CLI::App* unmount = app.add_subcommand("unmount", "End the mount on MOUNTPOINT");
  unmount->add_option("MOUNTPOINT", options.mountPoint, "Where 'nfslib mount' has mounted")
      ->required();
  CLI::App* list =
      app.add_subcommand("list", "List what this machine has mounted with 'nfslib mount'");

  const auto help = [&] {
    const auto chosen = app.get_subcommands();
    return " (see 'nfslib " + (chosen.empty() ? "" : chosen.front()->get_name() + " ") + "--help')";
  };
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help
    std::cerr << "nfslib: " << oneLine(e.what()) << help() << '\n';
    return kBadUsage;
  }
  try {
    if (!raw.group.empty()) spec.allowedGroupId = groupId(raw.group);
    spec.skipAddressAlias = !raw.alias;
    if (!raw.archiveCache.empty()) {
      options.serve.archiveCache = nfslib::tool::parseSize(raw.archiveCache);
    }
    if (raw.classic) options.serve.policy = {};
    if (*serve) nfslib::tool::serve(options.serve);
    if (*mount) nfslib::tool::mount(options);
    if (*unmount) nfslib::tool::unmount(options.mountPoint);
    if (*list) nfslib::tool::list();
    return 0;
  } catch (const std::invalid_argument& e) {
    std::cerr << "nfslib: " << oneLine(e.what()) << help() << '\n';
    return kBadUsage;
  } catch (const std::exception& e) {
    std::cerr << "nfslib: " << oneLine(innermost(e)) << '\n';
    return kFailed;
  }
}
