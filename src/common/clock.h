#pragma once

#include "common/checked_cast.h"

#include <chrono>
#include <cstdint>

namespace nfslib::utility {

// The time in seconds since 1970-01-01 UTC, as attributes hold it. Throws std::runtime_error when
// it does not fit.
inline std::uint32_t currentSeconds() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return checkedCast<std::uint32_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

}  // namespace nfslib::utility
