#pragma once

#include <nfslib/metadata.h>
#include <nfslib/nfs_path.h>

#include "common/credential.h"
#include "common/profile.h"
#include "common/status.h"

#include <cstdint>
#include <optional>

namespace nfslib {
class IAccessControl;
}

namespace nfslib::utility {

// The rights of ACCESS3 and ACCESS4: RFC 1813 section 3.3.4, RFC 7530 section 16.1.
enum AccessRight : unsigned {
  kAccessRead = 0x01,
  kAccessLookup = 0x02,
  kAccessModify = 0x04,
  kAccessExtend = 0x08,
  kAccessDelete = 0x10,
  kAccessExecute = 0x20,
};

struct Owner {
  unsigned uid = 0;
  unsigned gid = 0;
};

// What a client wants to set of an object, as far as it takes a right.
struct AttributeChange {
  bool mode = false;
  bool size = false;
  std::optional<unsigned> uid;
  std::optional<unsigned> gid;
  bool timeOfServer = false;  // a time is set to now
  bool timeOfClient = false;  // or to what the client says
};

// What one caller may do in one tree: by owner, group and mode, or as its host decides. Where the
// profile does not check rights, everything but what ACCESS tells. Takes no host call, and refers
// to what it was made of.
class Permission {
 public:
  using Status = nfs::OperationResult;

  // `host` decides; nullptr when owner, group and mode do.
  Permission(const Profile& profile, const rpc::AuthOpaque& caller, const IAccessControl* host)
      : m_profile(profile), m_caller(caller), m_host(host) {}

  // Whether the caller has the one right `accessBit`: what ACCESS tells, and all refusals go by.
  bool grants(const NfsPath& path, const MetaData& md, unsigned accessBit) const;

  // ---- OK, or the status of the refusal, which is logged

  // To read a file. Its owner always may, whatever became of its mode since it was opened; and who
  // may run it, since running it takes nothing else.
  Status toRead(const NfsPath& path, const MetaData& md) const;
  Status toWrite(const NfsPath& path, const MetaData& md) const;
  // To open a file: its owner goes by its mode as well.
  Status toOpen(const NfsPath& path, const MetaData& md, bool reads, bool writes) const;
  Status toList(const NfsPath& path, const MetaData& directory) const;
  Status toSearch(const NfsPath& path, const MetaData& directory) const;
  // To make, remove or rename entries.
  Status toChangeEntries(const NfsPath& path, const MetaData& directory) const;
  // To take the entry out of that directory, which the caller may change. Where `asksForEntries`
  // says no, that is all it takes.
  Status toTake(const MetaData& directory, const NfsPath& path, const MetaData& entry) const;
  bool asksForEntries(const MetaData& directory) const;
  Status toSet(const NfsPath& path, const MetaData& md, const AttributeChange& change) const;
  // The same for an object that the caller is about to make, and that is going to be `owner`'s.
  Status toMake(const NfsPath& path, const Owner& owner, const AttributeChange& change) const;

  // What is to be set of an object that was `before`: a file that goes to another owner or group
  // does not run in their name, and nobody gives a group to what he is no member of.
  void settleMode(const MetaData& before, MetaData& wanted, bool setsMode) const;

 private:
  unsigned hostGrants(const NfsPath& path, const MetaData& md, unsigned requested) const;
  bool isRoot() const { return m_caller.uid == 0; }
  bool isMember(unsigned gid) const;
  bool isChecked(const MetaData& directory) const;
  Status statusOf(bool isGranted, const NfsPath& path, unsigned accessBit) const;
  Status notOwner(const NfsPath& path) const;

  const Profile& m_profile;
  const rpc::AuthOpaque& m_caller;
  const IAccessControl* const m_host;
};

// What both versions of the protocol do with attributes.
class CProtocolUtils {
 public:
  // Whether the caller may have the one right `accessBit`, by owner, group and mode. The flavor of
  // the credential is not looked at: a call without AUTH_SYS carries uid 0 and has root's rights.
  // In the modern profile the owner of a file may write it whatever its mode: a client that made a
  // file read-only while it had it open goes on writing, as on a disk of its own.
  static bool isPermissionGranted(const MetaData& md, const rpc::AuthOpaque& caller,
                                  unsigned int accessBit, const Profile& profile = {});
  // Adds `accessBit` to `granted` when it is in `requested` and the caller may have it; logs a
  // refusal.
  static void checkPermission(const NfsPath& path, const MetaData& md,
                              const rpc::AuthOpaque& caller, unsigned int requested,
                              unsigned int accessBit, unsigned int& granted,
                              const Profile& profile = {}, const IAccessControl* host = nullptr);
};

// Who is to own what the caller makes in a directory of that mode and group: the caller, with the
// directory's group when its set-group-id bit says so. Nobody in the classic profile, where the
// host decides.
std::optional<Owner> ownerOfNew(const Profile& profile, unsigned directoryMode,
                                unsigned directoryGroup, const rpc::AuthOpaque& caller);

}  // namespace nfslib::utility
