#include "server/host_commands.h"

#include "common/log.h"
#include "network/address.h"

#include <exception>
#include <stdexcept>
#include <vector>

#include <magic_enum/magic_enum.hpp>

namespace nfslib::system {

namespace {

// `failed` is the message, with places for the line and the exit code. What the command said of its
// failure goes along inside.
void run(const std::string& line, const char* failed) {
  const CommandResult result = runCommandLine(line);
  if (result.status == 0) return;
  const std::runtime_error failure(message(failed, line, (result.status >> 8) & 255));
  if (result.output.empty()) throw failure;
  log().warn("[%1] says: [%2]", line, result.output);
  try {
    throw std::runtime_error(result.output);
  } catch (const std::runtime_error&) {
    std::throw_with_nested(failure);
  }
}

constexpr const char* kMountCommandFailed = "Command failed: [%1]. Code: [%2]";
constexpr const char* kAddressCommandFailed = "Command failed: [%1]. Error: [%2]";

std::string protocolName(NfsMountSpec::Protocol protocol) {
  const std::string_view name = magic_enum::enum_name(protocol);
  if (name.empty()) {
    throw std::runtime_error(
        message("There is no transport protocol [%1].", static_cast<unsigned>(protocol)));
  }
  return std::string(name);
}

std::string joined(const std::vector<std::string>& options) {
  std::string list;
  for (const std::string& option : options) (list += list.empty() ? "" : ",") += option;
  return list;
}

}  // namespace

const HostCommands kSolarisCommands{
    "lo0",
    [](const std::string& interface, const std::string& address) {
      return "/usr/sbin/ifconfig " + interface + " addif " + address + " up";
    },
    [](const std::string& interface, const std::string& address) {
      return "/usr/sbin/ifconfig " + interface + " removeif " + address;
    },
    [](const NfsMountSpec&, const std::string& options, const std::string& share,
       const std::string& mountPoint) {
      return "/usr/sbin/mount -F nfs -o " + options + " " + share + " " + mountPoint;
    },
    [](const std::string& mountPoint) { return "/usr/sbin/umount -f " + mountPoint; },
};

const HostCommands kLinuxCommands{
    "lo",
    [](const std::string& interface, const std::string& address) {
      return "ip addr add " + address + "/32 dev " + interface;
    },
    [](const std::string& interface, const std::string& address) {
      return "ip addr del " + address + "/32 dev " + interface;
    },
    // -s passes over options that this client does not have. Without nolock a mount of version 3
    // waits for a lock service. Whoever answers for port 111 may not be this server, so the client
    // is told the port of MOUNT. One of version 4 would write more at once than a record can hold.
    [](const NfsMountSpec& spec, const std::string& options, const std::string& share,
       const std::string& mountPoint) {
      std::string own = "nolock";
      if (spec.version > 3 && spec.writeEnabled) own += ",wsize=524288";
      if (spec.version == 3 && spec.useMountPort != 0) {
        own += message(",mountport=%1", spec.useMountPort);
      }
      return message("mount -t nfs -s -o %1 -o %2 %3 %4", own, options, share, mountPoint);
    },
    // -l frees the mount point at once, also while somebody has a file open below it.
    [](const std::string& mountPoint) { return "umount -f -l " + mountPoint; },
};

const HostCommands& hostCommands() {
#ifdef __linux__
  return kLinuxCommands;
#else
  return kSolarisCommands;
#endif
}

void mountShare(const std::string& mountPoint, const std::string& address,
                const NfsPath& exportPath, unsigned int port, const NfsMountSpec& spec) {
  log().info("Mounting NFS export [%1:%2] onto mount point [%3].", address, exportPath, mountPoint);
  try {
    const std::string portOption = message("port=%1", port);
    const std::string readSize = message("rsize=%1", spec.rsize);
    const std::string protocol = message("proto=%1", protocolName(spec.protocol));
    const std::string version = message("vers=%1", spec.version);
    log().info("NFS mount params from settings: [%1, %2, %3].", version, protocol, readSize);

    std::vector<std::string> options;
    if (!spec.writeEnabled) options.emplace_back("ro");
    options.insert(options.end(), {version, protocol, "timeo=300", "sec=sys", "actimeo=600",
                                   "llock", "nocto", readSize, portOption});
    run(hostCommands().mount(spec, joined(options), message("%1:%2", address, exportPath),
                             shellWord(mountPoint)),
        kMountCommandFailed);
  } catch (const std::exception& e) {
    std::throw_with_nested(
        std::runtime_error(message("Failed to mount NFS export [%1:%2] onto [%3]. Error: [%4]",
                                   address, exportPath, mountPoint, e.what())));
  }
}

void mountShare(const std::string& mountPoint, unsigned int address, const NfsPath& exportPath,
                unsigned int port, const NfsMountSpec& spec) {
  mountShare(mountPoint, address::str(address), exportPath, port, spec);
}

void unmountShare(const std::string& mountPoint, bool) {
  log().info("Unmounting NFS mount point [%1].", mountPoint);
  try {
    run(hostCommands().unmount(shellWord(mountPoint)), kMountCommandFailed);
  } catch (std::exception& e) {
    log().errWith(e, "Failed to unmount [%1].", mountPoint);
  }
}

void addAddress(const std::string& interface, const std::string& address) {
  log().info("Adding address [%1] to network interface [%2].", address, interface);
  try {
    run(hostCommands().addAddress(interface, address), kAddressCommandFailed);
  } catch (const std::exception& e) {
    std::throw_with_nested(
        std::runtime_error(message("Failed to add address [%1] to interface [%2]. Exception: [%3]",
                                   address, interface, e.what())));
  }
}

void addAddress(const std::string& interface, unsigned int address) {
  addAddress(interface, address::str(address));
}

void removeAddress(const std::string& interface, const std::string& address) {
  log().info("Removing address [%1] from network interface [%2].", address, interface);
  try {
    run(hostCommands().removeAddress(interface, address), kAddressCommandFailed);
  } catch (std::exception& e) {
    log().errWith(e, "Failed to remove address [%1] from interface [%2].", address, interface);
  }
}

void removeAddress(const std::string& interface, unsigned int address) {
  removeAddress(interface, address::str(address));
}

}  // namespace nfslib::system
