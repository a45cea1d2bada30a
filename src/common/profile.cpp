#include "common/profile.h"

#include "common/credential.h"
#include "common/log.h"

#include <random>
#include <stdexcept>

#include <uuid/uuid.h>

namespace nfslib {

namespace {

constexpr Profile kClassic{
    .isModern = false,
    .repeatsReplies = false,
    .checksRights = false,
    .groups = 10,
    .countsChanges = false,
    .remembersListings = false,
    .listsSelfAndParent = false,
    .refusesShortPages = false,
    .tellsStatistics = false,
    .fewestLinks = 0,
    .longestName = 256,
    .tellsHostFailures = false,
    .checksBeforeMaking = false,
    .refusesReclaims = false,
    .maxMessage = 0x1000'0000,
    .maxKeptReply = 0x1000'0000,
    .maxSlots = 0xFFFF'FFFF,
    .keepsObjects = true,
    .stampsTimes = true,
    .reusesClientIds = true,
    .confirmsClients = false,
};
constexpr Profile kModern{
    .isModern = true,
    .repeatsReplies = true,
    .checksRights = true,
    .groups = rpc::AuthOpaque::kMaxSentGroups,
    .countsChanges = true,
    .remembersListings = true,
    .listsSelfAndParent = true,
    .refusesShortPages = true,
    .tellsStatistics = true,
    .fewestLinks = 1,
    .longestName = 255,
    .tellsHostFailures = true,
    .checksBeforeMaking = true,
    .refusesReclaims = true,
    .maxMessage = 1'048'576,  // a record
    .maxKeptReply = 65'536,   // of what has to be done once only: such replies are short
    .maxSlots = 64,
    .keepsObjects = false,
    .stampsTimes = false,
    .reusesClientIds = false,
    .confirmsClients = true,
};

// A source of its own, unlike an engine: never the same after the next start.
std::uint64_t random64(std::random_device& source) {
  return (std::uint64_t{source()} << 32) | source();
}

}  // namespace

Profile profileOf(const NfsServerPolicy& policy) {
  if (policy.leaseSeconds == 0) {
    throw std::runtime_error("The lease of the policy is 0 seconds; it has to be 1 at least.");
  }
  Profile profile = policy.profile == NfsServerPolicy::Profile::classic ? kClassic : kModern;
  profile.leaseSeconds = policy.leaseSeconds;
  return profile;
}

ServerIdentity identityFor(const Profile& profile) {
  if (!profile.isModern) {
    return {.writeVerifier = 0, .owner = "Talvo File Mounter", .scope = "", .firstClientId = 1};
  }
  uuid_t uuid;
  uuid_generate(uuid);
  const std::string name = utility::guidToStr(uuid);
  std::random_device source;
  // Ids count in the low half; the high half is never 0.
  const std::uint64_t start = std::uint64_t{source() | 1U} << 32;
  return {
      .writeVerifier = random64(source), .owner = name, .scope = name, .firstClientId = start | 1U};
}

}  // namespace nfslib
