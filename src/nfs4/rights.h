#pragma once

#include "common/permission.h"
#include "common/status.h"
#include "fs/entry_rights.h"
#include "nfs4/attributes.h"
#include "nfs4/call.h"
#include "nfs4/operation_table.h"

#include <string>

// What the caller may do. Nothing is refused on the pseudo-root, which is for its operations to
// protect, nor where the profile checks no rights.

namespace nfslib::nfs4 {

// Of the current object; not for the pseudo-root.
inline utility::Permission permission(const Call& call) {
  return permissionIn(*call.current().fileSystem, call.caller);
}

// What the row of an operation asks for.
nfs::OperationResult statusOfNeeds(const Call& call, Needs needs);

// OPEN of the current object, a file that was there before.
nfs::OperationResult statusOfOpening(const Call& call, unsigned shareAccess, bool resizes);
// READ and WRITE. What was opened was checked then, and stays open whatever becomes of the mode, as
// on a disk of one's own. The stateids that stand for no open are checked now.
nfs::OperationResult statusOfReading(const Call& call, const FsObjectStateId& stateId);
nfs::OperationResult statusOfWriting(const Call& call, const FsObjectStateId& stateId);
// SETATTR. A size that is set through an open is like a WRITE.
nfs::OperationResult statusOfSetting(const Call& call, const FsObjectStateId& stateId,
                                     const Nfs4SetAttributes& values);

// To be called, as part of the host's call, before an object with those attributes is made in the
// current object. Throws NfsOperationError.
void requireRightToMake(const Call& call, const Nfs4SetAttributes& values);
// The same before the entry is removed.
void requireRightToRemove(const Call& call, const std::string& name);
// And before one of the saved object is moved to the current one.
void requireRightToMove(const Call& call, const std::string& from, const std::string& to);

}  // namespace nfslib::nfs4
