#include "common/buffers.h"

namespace nfslib::memory {

bool operator<(const const_buffer& a, const const_buffer& b) {
  const std::size_t shared = std::min(a.size(), b.size());
  const int order = shared == 0 ? 0 : std::memcmp(a.data(), b.data(), shared);
  return order != 0 ? order < 0 : a.size() < b.size();
}

bool operator==(const const_buffer& a, const const_buffer& b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size()) == 0);
}

}  // namespace nfslib::memory
