#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

namespace nfslib::rpc {

// Authentication flavors and statuses, RFC 5531 sections 8.2 and 9.
enum AuthFlavor : unsigned { AUTH_NONE = 0, AUTH_SYS = 1 };
constexpr unsigned AUTH_TOOWEAK = 5;

// One credential or verifier of a call. The AUTH_SYS fields are zero for any other flavor.
struct AuthOpaque {
  static constexpr std::size_t kMaxMachineName = 255;  // RFC 5531, appendix A
  static constexpr unsigned kMaxSentGroups = 16;       // the same

  unsigned flavor = AUTH_NONE;
  unsigned length = 0;  // of the body, in bytes
  unsigned stamp = 0;
  std::array<char, kMaxMachineName + 1> machineName{};
  unsigned uid = 0;
  unsigned gid = 0;
  unsigned groupCount = 0;  // as sent
  std::array<unsigned, kMaxSentGroups> groups{};

  // The first groups, `most` of them.
  std::span<const unsigned> firstGroups(std::size_t most) const {
    return {groups.data(), std::min({std::size_t{groupCount}, groups.size(), most})};
  }
};

}  // namespace nfslib::rpc
