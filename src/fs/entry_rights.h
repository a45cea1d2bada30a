#pragma once

#include <nfslib/metadata.h>
#include <nfslib/nfs_path.h>

#include "common/credential.h"
#include "common/permission.h"
#include "common/status.h"
#include "fs/nfs_file_system.h"

#include <string>

// The rights to entries by their names. The host is asked only where the directory's own attributes
// do not decide.

namespace nfslib {

inline utility::Permission permissionIn(const NfsFileSystem& view, const rpc::AuthOpaque& caller) {
  return {view.profile(), caller, view.accessControl()};
}

// A name in a directory, which there need not be.
struct EntryPlace {
  NfsFileSystem& view;
  const NfsPath& directory;
  const MetaData& directoryMd;
  const std::string& name;
};

// Whether the entry may be removed; whether the one may be moved to the other, in the place of what
// is there. To change the entries of the directories is another right.
nfs::OperationResult statusOfRemoving(const EntryPlace& entry, const rpc::AuthOpaque& caller);
nfs::OperationResult statusOfMoving(const EntryPlace& from, const EntryPlace& to,
                                    const rpc::AuthOpaque& caller);

}  // namespace nfslib
