#pragma once

#include "rpc/rpc_header.h"

namespace nfslib {
struct Profile;
}

namespace nfslib::rpc {

// Which callers are let in: root, and the members of one Unix group. One of two, by profile.
struct CallerRule {
  // What is open to anybody, whatever the credential.
  bool (*isOpen)(const RpcHeader& header) = nullptr;
  // Whether the supplementary group 0 lets in as the allowed one does.
  bool groupZeroLetsIn = false;
  // How many of the groups count.
  unsigned mostGroups = 0;

  // Whether the call may be made when `allowedGroup` is the group, 0 when there is none; a refusal
  // is logged.
  bool allows(const RpcHeader& header, int allowedGroup) const;
};

const CallerRule& callerRule(const Profile& profile);

}  // namespace nfslib::rpc
