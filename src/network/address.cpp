#include "network/address.h"

#include <array>

#include <arpa/inet.h>

namespace nfslib::address {

std::string str(const in_addr& address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &address, text.data(), text.size());
  return text.data();
}

std::string str(unsigned int address) { return str(in_addr{address}); }

std::string str(const sockaddr_in& address) {
  return str(address.sin_addr) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string rpcStr(unsigned int address, unsigned int port) {
  return str(address) + "." + std::to_string(port / 256) + "." + std::to_string(port % 256);
}

}  // namespace nfslib::address
