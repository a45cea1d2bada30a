#pragma once

#include <atomic>

namespace nfslib::network {

// The stop flag that a server's owner sets and its loops read is a plain bool; these are the two
// ways to touch it from several threads.
inline bool isSet(const bool& flag) {
  return std::atomic_ref<bool>(const_cast<bool&>(flag)).load(std::memory_order_acquire);
}
inline void setFlag(bool& flag, bool value) {
  std::atomic_ref<bool>(flag).store(value, std::memory_order_release);
}

}  // namespace nfslib::network
