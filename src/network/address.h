#pragma once

#include <string>

#include <netinet/in.h>

// Addresses as text. An `unsigned int` address is in network byte order, a port in host byte order.
namespace nfslib::address {

// Dotted decimal, for example 127.0.0.1.
std::string str(const in_addr& address);
std::string str(unsigned int address);
// With the port, for example 127.0.0.1:2049.
std::string str(const sockaddr_in& address);
// The universal address of RFC 1833, for example 127.0.0.1.8.1 for port 2049.
std::string rpcStr(unsigned int address, unsigned int port);

}  // namespace nfslib::address
