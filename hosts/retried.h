#pragma once

#include <cerrno>

namespace nfslib::hosts {

// Calls `systemCall` again for as long as a signal interrupts it.
template <class SystemCall>
auto retried(SystemCall systemCall) {
  auto result = systemCall();
  while (result < 0 && errno == EINTR) result = systemCall();
  return result;
}

}  // namespace nfslib::hosts
