#include "rpc/caller_rule.h"

#include "common/log.h"
#include "common/profile.h"

#include <algorithm>
#include <span>

namespace nfslib::rpc {

namespace {

constexpr unsigned kNullProcedure = 0;
constexpr unsigned kExportProcedure = 5;  // EXPORT of MOUNT, RFC 1813 section 5.2.5

bool concernsFiles(const RpcHeader& header) {
  return header.program == kNfsProgram || header.program == kMountProgram;
}

constexpr CallerRule kClassic{
    .isOpen =
        [](const RpcHeader& header) {
          return header.credentials.flavor == AUTH_NONE || !concernsFiles(header);
        },
    .groupZeroLetsIn = true,
    .mostGroups = 10,
};

constexpr CallerRule kModern{
    .isOpen =
        [](const RpcHeader& header) {
          return header.procedure == kNullProcedure || !concernsFiles(header) ||
                 (header.program == kMountProgram && header.procedure == kExportProcedure);
        },
    .groupZeroLetsIn = false,
    .mostGroups = AuthOpaque::kMaxSentGroups,
};

}  // namespace

bool CallerRule::allows(const RpcHeader& header, int allowedGroup) const {
  if (isOpen(header)) return true;
  const AuthOpaque& caller = header.credentials;
  if (caller.flavor != AUTH_SYS && header.procedure != kNullProcedure) {
    log().warn("Program [%1], procedure [%2]: access denied. Not supported auth type.",
               header.program, header.procedure);
    return false;
  }
  if (caller.uid == 0) return true;
  if (allowedGroup == 0) {
    log().warn(
        "Program [%1], procedure [%2]: access denied. There is no talvo group in the system.",
        header.program, header.procedure);
    return false;
  }
  const auto allowed = static_cast<unsigned>(allowedGroup);
  if (caller.gid == allowed) return true;
  const std::span groups = caller.firstGroups(mostGroups);
  const bool isMember = std::any_of(groups.begin(), groups.end(), [&](unsigned group) {
    return group == allowed || (group == 0 && groupZeroLetsIn);
  });
  if (!isMember) {
    log().warn(
        "Program [%1], procedure [%2]: access denied. User does not have access to talvo group.",
        header.program, header.procedure);
  }
  return isMember;
}

const CallerRule& callerRule(const Profile& profile) {
  return profile.isModern ? kModern : kClassic;
}

}  // namespace nfslib::rpc
