#include "server/host_commands.h"

#include "common/log.h"
#include "network/address.h"

#include <cstdlib>
#include <stdexcept>

namespace nfslib::system {

namespace {

void run(const std::string& command) {
  const int status =
      std::system(command.c_str());  // NOLINT(cert-env33-c): a line of our own making
  if (status == 0) return;
  throw std::runtime_error(
      message("Command failed: [%1]. Error: [%2]", command, (status >> 8) & 255));
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
};

const HostCommands kLinuxCommands{
    "lo",
    [](const std::string& interface, const std::string& address) {
      return "ip addr add " + address + "/32 dev " + interface;
    },
    [](const std::string& interface, const std::string& address) {
      return "ip addr del " + address + "/32 dev " + interface;
    },
};

const HostCommands& hostCommands() {
#ifdef __linux__
  return kLinuxCommands;
#else
  return kSolarisCommands;
#endif
}

void addAddress(const std::string& interface, const std::string& address) {
  log().info("Adding address [%1] to network interface [%2].", address, interface);
  try {
    run(hostCommands().addAddress(interface, address));
  } catch (const std::exception& e) {
    throw std::runtime_error(
        message("Failed to add address [%1] to interface [%2]. Exception: [%3]", address, interface,
                e.what()));
  }
}

void addAddress(const std::string& interface, unsigned int address) {
  addAddress(interface, address::str(address));
}

void removeAddress(const std::string& interface, const std::string& address) {
  log().info("Removing address [%1] from network interface [%2].", address, interface);
  try {
    run(hostCommands().removeAddress(interface, address));
  } catch (std::exception& e) {
    log().errWith(e, "Failed to remove address [%1] from interface [%2].", address, interface);
  }
}

void removeAddress(const std::string& interface, unsigned int address) {
  removeAddress(interface, address::str(address));
}

}  // namespace nfslib::system
