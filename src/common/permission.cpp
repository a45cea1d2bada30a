#include "common/permission.h"

#include "common/log.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

namespace nfslib::utility {

namespace {

struct Right {
  unsigned bit;
  std::string_view name;
  unsigned others, group, owner;  // the mode bits that give it
};
constexpr std::array kRights{
    Right{kAccessRead, "READ", 0004, 0040, 0400},
    Right{kAccessLookup, "LOOKUP", 0001, 0010, 0100},
    Right{kAccessModify, "MODIFY", 0002, 0020, 0200},
    Right{kAccessExtend, "EXTEND", 0002, 0020, 0200},
    Right{kAccessDelete, "DELETE", 0002, 0020, 0200},
    Right{kAccessExecute, "EXECUTE", 0001, 0010, 0100},
};

const Right* findRight(unsigned bit) {
  const auto* right = std::find_if(kRights.begin(), kRights.end(),
                                   [&](const Right& candidate) { return candidate.bit == bit; });
  return right == kRights.end() ? nullptr : right;
}

bool isMember(const rpc::AuthOpaque& caller, unsigned gid) {
  const std::span groups(caller.groups.data(),
                         std::min(caller.groupCount, rpc::AuthOpaque::kMaxKeptGroups));
  return caller.gid == gid || std::find(groups.begin(), groups.end(), gid) != groups.end();
}

}  // namespace

bool CProtocolUtils::isPermissionGranted(const MetaData& md, const rpc::AuthOpaque& caller,
                                         unsigned int accessBit, const Profile& profile) {
  const Right* right = findRight(accessBit);
  if (right == nullptr) return false;
  const auto gives = [&](unsigned bits) { return (md.mode & bits) != 0; };

  // Root may do anything, but run only what somebody may run.
  if (caller.uid == 0) return right->bit != kAccessExecute || gives(0111);

  const bool isWrite = right->bit == kAccessModify || right->bit == kAccessExtend;
  if (profile.isModern && isWrite && caller.uid == md.uid && isType(md, FileType::Regular)) {
    return true;
  }

  return gives(right->others) || (caller.uid == md.uid && gives(right->owner)) ||
         (gives(right->group) && isMember(caller, md.gid));
}

void CProtocolUtils::checkPermission(const NfsPath& path, const MetaData& md,
                                     const rpc::AuthOpaque& caller, unsigned int requested,
                                     unsigned int accessBit, unsigned int& granted,
                                     const Profile& profile) {
  if ((requested & accessBit) == 0) return;
  if (isPermissionGranted(md, caller, accessBit, profile)) {
    granted |= accessBit;
    return;
  }
  const Right* right = findRight(accessBit);
  log().info("The requested [%1] permission to [%2] has not been granted",
             right == nullptr ? "UNKNOWN" : right->name, path);
}

std::optional<Owner> ownerOfNew(const Profile& profile, unsigned directoryMode,
                                unsigned directoryGroup, const rpc::AuthOpaque& caller) {
  constexpr unsigned kSetGroupId = 02000;
  if (!profile.isModern || caller.flavor != rpc::AUTH_SYS) return std::nullopt;
  const bool inherits = (directoryMode & kSetGroupId) != 0;
  return Owner{caller.uid, inherits ? directoryGroup : caller.gid};
}

}  // namespace nfslib::utility
