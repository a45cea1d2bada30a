#include "fs/entry_rights.h"

#include "fs/entry_name.h"

#include <optional>

namespace nfslib {

using nfs::OperationResult;

OperationResult statusOfRemoving(const EntryPlace& entry, const rpc::AuthOpaque& caller) {
  const utility::Permission permission = permissionIn(entry.view, caller);
  if (!permission.asksForEntries(entry.directoryMd)) return OperationResult::OK;
  requireEntryName(entry.name);
  const NfsPath path = entry.directory / entry.name;
  const std::optional<MetaData> md = entry.view.findMetaData(path);
  return md ? permission.toTake(entry.directoryMd, path, *md) : OperationResult::OK;
}

OperationResult statusOfMoving(const EntryPlace& from, const EntryPlace& to,
                               const rpc::AuthOpaque& caller) {
  if (!from.view.profile().checksRights) return OperationResult::OK;
  OperationResult status = statusOfRemoving(from, caller);
  if (status == OperationResult::OK) status = statusOfRemoving(to, caller);
  const bool leaves = &from.view != &to.view || !(from.directory == to.directory);
  if (status != OperationResult::OK || !leaves) return status;
  // A directory that goes elsewhere gets another "..".
  requireEntryName(from.name);
  const NfsPath path = from.directory / from.name;
  const std::optional<MetaData> md = from.view.findMetaData(path);
  if (!md || !isType(*md, FileType::Directory)) return OperationResult::OK;
  return permissionIn(from.view, caller).toWrite(path, *md);
}

}  // namespace nfslib
