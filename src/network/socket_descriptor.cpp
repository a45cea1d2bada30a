#include "network/socket_descriptor.h"

#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace nfslib::network {

void SocketDescriptor::close() {
  if (valid()) ::close(std::exchange(m_descriptor, -1));
}

void SocketDescriptor::shutdown() const {
  if (valid()) ::shutdown(m_descriptor, SHUT_RDWR);
}

void SocketDescriptor::swap(SocketDescriptor& other) noexcept {
  std::swap(m_descriptor, other.m_descriptor);
}

}  // namespace nfslib::network
