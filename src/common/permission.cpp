#include "common/permission.h"

#include <nfslib/file_system.h>

#include "common/log.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string_view>

namespace nfslib {

// The home of its type information; those of the other interfaces are in fs.
IAccessControl::~IAccessControl() = default;

}  // namespace nfslib

namespace nfslib::utility {

using nfs::OperationResult;

namespace {

constexpr unsigned kSetUserId = 04000, kSetGroupId = 02000, kSticky = 01000;

struct Right {
  unsigned bit;
  std::string_view name;
  unsigned others, group, owner;  // the mode bits that give it
  unsigned ofHost;                // the right of IAccessControl
};
constexpr std::array kRights{
    Right{kAccessRead, "READ", 0004, 0040, 0400, IAccessControl::read},
    Right{kAccessLookup, "LOOKUP", 0001, 0010, 0100, IAccessControl::execute},
    Right{kAccessModify, "MODIFY", 0002, 0020, 0200, IAccessControl::write},
    Right{kAccessExtend, "EXTEND", 0002, 0020, 0200, IAccessControl::write},
    Right{kAccessDelete, "DELETE", 0002, 0020, 0200, IAccessControl::write},
    Right{kAccessExecute, "EXECUTE", 0001, 0010, 0100, IAccessControl::execute},
};

const Right* findRight(unsigned bit) {
  const auto* right = std::find_if(kRights.begin(), kRights.end(),
                                   [&](const Right& candidate) { return candidate.bit == bit; });
  return right == kRights.end() ? nullptr : right;
}

bool isMemberOf(unsigned gid, const rpc::AuthOpaque& caller, const Profile& profile) {
  const auto groups = caller.firstGroups(profile.groups);
  return caller.gid == gid || std::find(groups.begin(), groups.end(), gid) != groups.end();
}

void logRefusal(unsigned accessBit, const NfsPath& path) {
  const Right* right = findRight(accessBit);
  log().info("The requested [%1] permission to [%2] has not been granted",
             right == nullptr ? "UNKNOWN" : right->name, path);
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

  if (profile.checksRights) {
    if (caller.uid == md.uid) return gives(right->owner);
    return gives(isMemberOf(md.gid, caller, profile) ? right->group : right->others);
  }
  return gives(right->others) || (caller.uid == md.uid && gives(right->owner)) ||
         (gives(right->group) && isMemberOf(md.gid, caller, profile));
}

void CProtocolUtils::checkPermission(const NfsPath& path, const MetaData& md,
                                     const rpc::AuthOpaque& caller, unsigned int requested,
                                     unsigned int accessBit, unsigned int& granted,
                                     const Profile& profile, const IAccessControl* host) {
  if ((requested & accessBit) == 0) return;
  if (Permission(profile, caller, host).grants(path, md, accessBit)) {
    granted |= accessBit;
  } else {
    logRefusal(accessBit, path);
  }
}

bool Permission::isMember(unsigned gid) const { return isMemberOf(gid, m_caller, m_profile); }

unsigned Permission::hostGrants(const NfsPath& path, const MetaData& md, unsigned requested) const {
  const Caller caller{m_caller.uid, m_caller.gid, m_caller.firstGroups(m_profile.groups)};
  try {
    return m_host->GetGrantedRights(caller, path, md, requested) & requested;
  } catch (const std::exception& e) {
    log().warn("The host does not tell who may use [%1]: [%2]", path, e.what());
    return 0;
  }
}

bool Permission::grants(const NfsPath& path, const MetaData& md, unsigned accessBit) const {
  if (m_host == nullptr) {
    return CProtocolUtils::isPermissionGranted(md, m_caller, accessBit, m_profile);
  }
  const Right* right = findRight(accessBit);
  return right != nullptr && hostGrants(path, md, right->ofHost) != 0;
}

Permission::Status Permission::statusOf(bool isGranted, const NfsPath& path,
                                        unsigned accessBit) const {
  if (isGranted) return OperationResult::OK;
  logRefusal(accessBit, path);
  return OperationResult::PermissionDenied;
}

Permission::Status Permission::notOwner(const NfsPath& path) const {
  log().info("User [%1] may not change the entry [%2], which is not its own.", m_caller.uid, path);
  return OperationResult::NotOwner;
}

Permission::Status Permission::toRead(const NfsPath& path, const MetaData& md) const {
  if (!m_profile.checksRights) return OperationResult::OK;
  const bool isOwners = m_host == nullptr && m_caller.uid == md.uid;
  return isOwners ? OperationResult::OK : toOpen(path, md, true, false);
}

Permission::Status Permission::toWrite(const NfsPath& path, const MetaData& md) const {
  return toOpen(path, md, false, true);
}

Permission::Status Permission::toOpen(const NfsPath& path, const MetaData& md, bool reads,
                                      bool writes) const {
  if (!m_profile.checksRights) return OperationResult::OK;
  if (reads && !grants(path, md, kAccessRead) && !grants(path, md, kAccessExecute)) {
    return statusOf(false, path, kAccessRead);
  }
  return statusOf(!writes || grants(path, md, kAccessModify), path, kAccessModify);
}

// What is no directory is refused for that.
bool Permission::isChecked(const MetaData& directory) const {
  return m_profile.checksRights && isType(directory, FileType::Directory);
}

Permission::Status Permission::toList(const NfsPath& path, const MetaData& directory) const {
  if (!isChecked(directory)) return OperationResult::OK;
  return statusOf(grants(path, directory, kAccessRead), path, kAccessRead);
}

Permission::Status Permission::toSearch(const NfsPath& path, const MetaData& directory) const {
  if (!isChecked(directory)) return OperationResult::OK;
  return statusOf(grants(path, directory, kAccessLookup), path, kAccessLookup);
}

Permission::Status Permission::toChangeEntries(const NfsPath& path,
                                               const MetaData& directory) const {
  if (!isChecked(directory)) return OperationResult::OK;
  const Status status = toSearch(path, directory);
  return status == OperationResult::OK ? toWrite(path, directory) : status;
}

bool Permission::asksForEntries(const MetaData& directory) const {
  if (!m_profile.checksRights) return false;
  if (m_host != nullptr) return true;
  return (directory.mode & kSticky) != 0 && !isRoot() && m_caller.uid != directory.uid;
}

Permission::Status Permission::toTake(const MetaData& directory, const NfsPath& path,
                                      const MetaData& entry) const {
  if (!asksForEntries(directory)) return OperationResult::OK;
  const bool isGranted = m_host != nullptr ? hostGrants(path, entry, IAccessControl::remove) != 0
                                           : m_caller.uid == entry.uid;
  return isGranted ? OperationResult::OK : notOwner(path);
}

Permission::Status Permission::toSet(const NfsPath& path, const MetaData& md,
                                     const AttributeChange& change) const {
  if (!m_profile.checksRights) return OperationResult::OK;
  const bool gives = change.uid || change.gid;
  const bool isOwners = isRoot() || m_caller.uid == md.uid;
  const auto mayChange = [&] {
    return m_host != nullptr ? hostGrants(path, md, IAccessControl::changeAttributes) != 0
                             : isOwners;
  };
  if ((change.mode || change.timeOfClient) && !mayChange()) return notOwner(path);
  if (gives && m_host != nullptr && hostGrants(path, md, IAccessControl::changeOwner) == 0) {
    return notOwner(path);
  }
  if (gives && m_host == nullptr) {
    const Status status = isOwners ? toMake(path, {md.uid, md.gid}, change) : notOwner(path);
    if (status != OperationResult::OK) return status;
  }
  if (change.size) {
    const Status status = toWrite(path, md);
    if (status != OperationResult::OK) return status;
  }
  // Whoever may write may tell that the content is of now.
  return change.timeOfServer && !mayChange() ? toWrite(path, md) : OperationResult::OK;
}

Permission::Status Permission::toMake(const NfsPath& path, const Owner& owner,
                                      const AttributeChange& change) const {
  if (!m_profile.checksRights || isRoot()) return OperationResult::OK;
  const bool keepsOwner = change.uid.value_or(owner.uid) == owner.uid;
  const unsigned gid = change.gid.value_or(owner.gid);
  return keepsOwner && (gid == owner.gid || isMember(gid)) ? OperationResult::OK : notOwner(path);
}

void Permission::settleMode(const MetaData& before, MetaData& wanted, bool setsMode) const {
  if (!m_profile.checksRights || m_host != nullptr || isRoot()) return;
  const auto take = [&](unsigned bits) {
    wanted.mode = static_cast<std::uint16_t>(wanted.mode & ~bits);
  };
  const bool isGiven = wanted.uid != before.uid || wanted.gid != before.gid;
  if (isGiven && !setsMode && isType(before, FileType::Regular)) take(kSetUserId | kSetGroupId);
  if (setsMode && !isMember(wanted.gid)) take(kSetGroupId);
}

std::optional<Owner> ownerOfNew(const Profile& profile, unsigned directoryMode,
                                unsigned directoryGroup, const rpc::AuthOpaque& caller) {
  if (!profile.isModern || caller.flavor != rpc::AUTH_SYS) return std::nullopt;
  const bool inherits = (directoryMode & kSetGroupId) != 0;
  return Owner{caller.uid, inherits ? directoryGroup : caller.gid};
}

}  // namespace nfslib::utility
