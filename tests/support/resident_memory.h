#pragma once

#include <cstddef>
#include <fstream>

#include <unistd.h>

namespace nfslib::testing {

// Of this process.
inline std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t total = 0, resident = 0;
  statm >> total >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace nfslib::testing
