#pragma once

#include <string>

// The library's contact with the system's network configuration: one command line each, run by the
// system's shell. Addresses are IPv4, as dotted-decimal text or as a number in network byte order.
// No state, no lock; each call takes as long as its command.
namespace nfslib::system {

// How a family of systems spells the commands. Addresses and interface names hold no character that
// a shell would treat specially.
struct HostCommands {
  const char* loopbackInterface;
  std::string (*addAddress)(const std::string& interface, const std::string& address);
  std::string (*removeAddress)(const std::string& interface, const std::string& address);
};
extern const HostCommands kSolarisCommands;
extern const HostCommands kLinuxCommands;

// Those of the system that the library was built for.
const HostCommands& hostCommands();

// Gives `interface` a further address and brings it up. Throws std::runtime_error.
void addAddress(const std::string& interface, const std::string& address);
void addAddress(const std::string& interface, unsigned int address);
// Takes it away again. Logs failures, never throws.
void removeAddress(const std::string& interface, const std::string& address);
void removeAddress(const std::string& interface, unsigned int address);

}  // namespace nfslib::system
