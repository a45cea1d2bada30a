#include "memory/space.h"

#include <nfslib/exception.h>

#include <string>

namespace nfslib::hosts::memory {

void Space::take(std::uint64_t bytes) {
  std::uint64_t used = m_used.load(std::memory_order_relaxed);
  do {
    if (bytes > m_capacity - used) {
      throw OutOfSpaceNfsException("The tree in memory is full: " + std::to_string(bytes) +
                                   " bytes are needed and " + std::to_string(m_capacity - used) +
                                   " of " + std::to_string(m_capacity) + " are left.");
    }
  } while (!m_used.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
}

void Space::giveBack(std::uint64_t bytes) noexcept {
  m_used.fetch_sub(bytes, std::memory_order_relaxed);
}

}  // namespace nfslib::hosts::memory
