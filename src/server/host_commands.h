#pragma once

#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>

#include <string>
#include <string_view>

// The library's contact with the system's NFS client and network configuration: one command line
// each, run by the system's shell. Addresses are IPv4, as dotted-decimal text or as a number in
// network byte order. No state, no lock; each call takes as long as its command.
namespace nfslib::system {

// How a family of systems spells the commands. What is put in their places, mount points in
// particular, is a word of the shell already; see shellWord.
struct HostCommands {
  const char* loopbackInterface;
  std::string (*addAddress)(const std::string& interface, const std::string& address);
  std::string (*removeAddress)(const std::string& interface, const std::string& address);
  // `options` is the whole list as it stands behind -o, `share` is ADDRESS:PATH.
  std::string (*mount)(const NfsMountSpec& spec, const std::string& options,
                       const std::string& share, const std::string& mountPoint);
  std::string (*unmount)(const std::string& mountPoint);
};
extern const HostCommands kSolarisCommands;
extern const HostCommands kLinuxCommands;

// Those of the system that the library was built for.
const HostCommands& hostCommands();

// How a line gets run. A test puts a recorder in its place, while nobody else runs commands.
struct CommandResult {
  int status = 0;      // as of wait(2)
  std::string output;  // what it wrote to either of its outputs
};
using CommandRunner = CommandResult (*)(const std::string& line);
extern CommandRunner runCommandLine;

// `path` as one word that no shell takes apart and no command takes for an option: as it is when it
// is plain, else in quotes. Throws std::runtime_error for one that no command line can hold.
std::string shellWord(std::string_view path);

// Mounts the export with the system's NFS client, which is told the port of MOUNT where `spec` has
// it and the client can be told. Throws std::runtime_error.
void mountShare(const std::string& mountPoint, const std::string& address,
                const NfsPath& exportPath, unsigned int port, const NfsMountSpec& spec);
void mountShare(const std::string& mountPoint, unsigned int address, const NfsPath& exportPath,
                unsigned int port, const NfsMountSpec& spec);
// Takes the mount away, also while somebody uses it. Logs failures, never throws. The flag, whether
// the share's address is no alias, makes no difference.
void unmountShare(const std::string& mountPoint, bool skipAddressAlias);

// Gives `interface` a further address and brings it up. Throws std::runtime_error.
void addAddress(const std::string& interface, const std::string& address);
void addAddress(const std::string& interface, unsigned int address);
// Takes it away again. Logs failures, never throws.
void removeAddress(const std::string& interface, const std::string& address);
void removeAddress(const std::string& interface, unsigned int address);

}  // namespace nfslib::system
