#pragma once

#include <nfslib/metadata.h>
#include <nfslib/nfs_path.h>

#include "common/credential.h"
#include "common/profile.h"

#include <optional>

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
                              const Profile& profile = {});
};

struct Owner {
  unsigned uid = 0;
  unsigned gid = 0;
};

// Who is to own what the caller makes in a directory of that mode and group: the caller, with the
// directory's group when its set-group-id bit says so. Nobody in the classic profile, where the
// host decides.
std::optional<Owner> ownerOfNew(const Profile& profile, unsigned directoryMode,
                                unsigned directoryGroup, const rpc::AuthOpaque& caller);

}  // namespace nfslib::utility
