#pragma once

#include <string>

// Which loopback address and which ports the server takes. An `unsigned int` address is in network
// byte order, ports are in host byte order, `type` is SOCK_STREAM or SOCK_DGRAM.
//
// Called by one thread at a time (the server's start is serialised by its owner).
namespace nfslib::address {

// Whether a socket of `type` can be bound to the IPv4 address and port. Throws std::runtime_error
// when no socket can be made.
bool isPortUnused(unsigned int port, const std::string& address, int type);

// The first free port from `start` upward that is not `excluded`, among 100 candidates. Throws
// std::runtime_error when all are busy.
unsigned int getNextFreePort(unsigned int start, unsigned int excluded, int type);

// `configured` unless it is 0; else `remembered` unless it is 0; else a free port found from
// `defaultPort` upward, which is then remembered, so that a server that is started again comes back
// on the same port.
unsigned int choosePort(unsigned int defaultPort, unsigned int configured, unsigned int excluded,
                        unsigned int& remembered, int type);

// The port of the MOUNT and of the NFS program, by choosePort. A wanted port above 65535 throws
// std::runtime_error.
unsigned int getMountProgramPort(int type, unsigned long useMountPort, unsigned long excluded);
unsigned int getNfsProgramPort(int type, unsigned long useNfsPort, unsigned long excluded);

// 127.0.0.1 when `useLoopback` is set; else the first of 127.127.0.1 to 127.127.255.254 that no
// network interface holds. Throws std::runtime_error when there is none.
unsigned int getUnusedLocalAddress(bool useLoopback);

}  // namespace nfslib::address
