#include "server/ports.h"

#include "common/log.h"
#include "network/address.h"
#include "network/socket_descriptor.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <vector>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace nfslib::address {

namespace {

constexpr unsigned kDefaultMountPort = 33050;
constexpr unsigned kDefaultNfsPort = 33049;
constexpr unsigned kHighestPort = 65535;
constexpr unsigned kCandidates = 100;
constexpr const char* kSearchAddress = "127.0.0.1";
constexpr in_addr_t kFirstAlias = 0x7F7F0001;     // 127.127.0.1
constexpr in_addr_t kBehindAliases = 0x7F7FFFFF;  // 127.127.255.255

// Kept for the life of the process.
unsigned rememberedMountPort = 0;
unsigned rememberedNfsPort = 0;

bool bindTo(int socket, in_addr address, unsigned port) {
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_addr = address;
  target.sin_port = htons(static_cast<std::uint16_t>(port));
  return bind(socket, reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0;
}

// Elsewhere an address that no interface holds cannot be bound. Linux binds all of 127.0.0.0/8.
class LocalAddresses {
 public:
  bool hold(in_addr candidate) const {
#ifdef __linux__
    return std::find(m_held.begin(), m_held.end(), candidate.s_addr) != m_held.end();
#else
    const network::SocketDescriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
    if (!socket.valid()) {
      throw std::runtime_error(message("Failed to create a TCP socket. Error: [%1]",
                                       utility::getErrnoDescription(errno)));
    }
    return bindTo(socket, candidate, 0) || errno != EADDRNOTAVAIL;
#endif
  }

#ifdef __linux__
  LocalAddresses() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
      throw std::runtime_error(message("Failed to list the network interfaces. Error: [%1]",
                                       utility::getErrnoDescription(errno)));
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
    for (const ifaddrs* at = list; at != nullptr; at = at->ifa_next) {
      if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_INET) continue;
      m_held.push_back(reinterpret_cast<const sockaddr_in*>(at->ifa_addr)->sin_addr.s_addr);
    }
  }

 private:
  std::vector<in_addr_t> m_held;
#endif
};

struct ProgramPort {
  const char* specifying;
  const char* wrong;
  const char* tooLarge;
  unsigned defaultPort;
  unsigned& remembered;
};

unsigned choose(const ProgramPort& program, unsigned long configured, unsigned long excluded,
                int type) {
  log().info(program.specifying);
  if (configured > kHighestPort) {
    log().err(program.wrong, configured);
    throw std::runtime_error(message(program.tooLarge, configured));
  }
  return choosePort(program.defaultPort, static_cast<unsigned>(configured),
                    static_cast<unsigned>(excluded), program.remembered, type);
}

}  // namespace

bool isPortUnused(unsigned int port, const std::string& address, int type) {
  const network::SocketDescriptor socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
  if (!socket.valid()) throw std::runtime_error("Failed to create a socket.");
  in_addr parsed{};
  if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) return false;
  if (type == SOCK_STREAM) {
    // As the server itself binds: a connection of an earlier run that lingers does not count, a
    // listener does. Two datagram sockets could share a port that way, so they are tested without.
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  }
  return bindTo(socket, parsed, port);
}

unsigned int getNextFreePort(unsigned int start, unsigned int excluded, int type) {
  unsigned port = start;
  for (unsigned tries = 0; tries < kCandidates && port <= kHighestPort; ++tries, ++port) {
    if (port == excluded) ++port;
    log().info("Trying endpoint: [%1:%2]", kSearchAddress, port);
    if (isPortUnused(port, kSearchAddress, type)) return port;
    log().info("Port is in use: [%1:%2]", kSearchAddress, port);
  }
  throw std::runtime_error("Exceeded the maximum number of retries");
}

unsigned int choosePort(unsigned int defaultPort, unsigned int configured, unsigned int excluded,
                        unsigned int& remembered, int type) {
  if (configured != 0) {
    log().info("Using ini port: [%1]", configured);
    return configured;
  }
  if (remembered != 0) {
    log().info("Using the selected port: [%1]", remembered);
    return remembered;
  }
  log().info("Using the default port: [%1]", defaultPort);
  const unsigned port = getNextFreePort(defaultPort, excluded, type);
  log().info("Using port: [%1]", port);
  remembered = port;
  return port;
}

unsigned int getMountProgramPort(int type, unsigned long useMountPort, unsigned long excluded) {
  return choose({"Specify mount port.", "Incorrect useMountPort parameter value in config: [%1]",
                 "useMountPort parameter cannot be larger than 65535, the current value: [%1]",
                 kDefaultMountPort, rememberedMountPort},
                useMountPort, excluded, type);
}

unsigned int getNfsProgramPort(int type, unsigned long useNfsPort, unsigned long excluded) {
  return choose({"Specify NFS port.", "Incorrect useNFSPort parameter value in config",
                 "useNfsPort parameter cannot be larger than 65535, current value: [%1]",
                 kDefaultNfsPort, rememberedNfsPort},
                useNfsPort, excluded, type);
}

unsigned int getUnusedLocalAddress(bool useLoopback) {
  if (useLoopback) return htonl(INADDR_LOOPBACK);
  const LocalAddresses local;
  for (in_addr_t candidate = kFirstAlias; candidate < kBehindAliases; ++candidate) {
    const in_addr address{htonl(candidate)};
    if (local.hold(address)) continue;
    log().info("Found unused local address [%1].", str(address));
    return address.s_addr;
  }
  throw std::runtime_error("Could not find an unused local address");
}

}  // namespace nfslib::address
