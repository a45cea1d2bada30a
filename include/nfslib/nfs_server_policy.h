#pragma once

#include <cstdint>

namespace nfslib {

/// How the server of the process behaves towards its clients. A plain value, set with
/// `NfsServer::setPolicy`; docs/profiles.md lists point by point what the profiles do.
struct NfsServerPolicy {
  /// The ways to serve.
  enum class Profile : std::uint32_t {
    classic = 0,  ///< what clients of old were written against
    modern = 1,   ///< what RFC 1813, 7530 and 8881 say, and the clients of today count on
  };

  /// Which of them.
  Profile profile = Profile::classic;
  /// Seconds that a client of version 4 may be silent before it loses its state (lease_time). At
  /// least 1.
  std::uint32_t leaseSeconds = 600;

  /// The modern profile with its usual lease.
  static constexpr NfsServerPolicy modern() {
    return {.profile = Profile::modern, .leaseSeconds = 90};
  }
};

}  // namespace nfslib
