#include "nfs4/rights.h"

#include "nfs4/open_states.h"
#include "nfs4/state_references.h"

namespace nfslib::nfs4 {

using nfs::NfsOperationError;
using nfs::OperationResult;
using Object = Nfs4Session::FileSystemObject;

namespace {

bool isChecked(const Call& call, const Object& object) {
  return call.service.profile().checksRights && object.isSet() && !object.isPseudoRoot();
}

OperationResult statusOfDirectory(const Call& call, const Object& object, Needs needs) {
  if (!isChecked(call, object) || !isType(object.metaData, FileType::Directory)) {
    return OperationResult::OK;
  }
  const utility::Permission permission = permissionIn(*object.fileSystem, call.caller);
  switch (needs) {
    case Needs::Nothing:
      return OperationResult::OK;
    case Needs::List:
      return permission.toList(object.path, object.metaData);
    case Needs::Search:
      return permission.toSearch(object.path, object.metaData);
    case Needs::ChangeEntries:
    case Needs::ChangeBoth:
      return permission.toChangeEntries(object.path, object.metaData);
  }
  return OperationResult::OK;
}

bool standsForOpen(const FsObjectStateId& stateId) {
  return !isAnonymous(stateId) && !isBypass(stateId);
}

// Who has a file open for writing may read through that, since its client cannot do without; but
// only who may read it.
bool isOpenForReading(const Call& call, const FsObjectStateId& stateId) {
  StateTable::Held unused;
  return call.service.openFiles().find(referenceOf(call, stateId), kShareRead, unused) ==
         OperationResult::OK;
}

utility::AttributeChange changeOf(const Call& call, const Nfs4SetAttributes& values) {
  MetaData wanted;
  setAttributes(values, wanted, attributeTable(call));
  utility::AttributeChange change;
  change.mode = values.mode.has_value();
  change.size = values.size.has_value();
  change.timeOfServer = values.setsTimeOfServer;
  change.timeOfClient = values.setsTimeOfClient;
  if (values.owner) change.uid = wanted.uid;
  if (values.ownerGroup) change.gid = wanted.gid;
  return change;
}

void require(OperationResult status) {
  if (status != OperationResult::OK) throw NfsOperationError(status);
}

EntryPlace placeIn(const Object& directory, const std::string& name) {
  return {*directory.fileSystem, directory.path, directory.metaData, name};
}

}  // namespace

OperationResult statusOfNeeds(const Call& call, Needs needs) {
  if (needs == Needs::Nothing) return OperationResult::OK;
  OperationResult status = OperationResult::OK;
  if (needs == Needs::ChangeBoth) status = statusOfDirectory(call, call.saved(), needs);
  return status == OperationResult::OK ? statusOfDirectory(call, call.current(), needs) : status;
}

OperationResult statusOfOpening(const Call& call, unsigned shareAccess, bool resizes) {
  const Object& object = call.current();
  if (!isChecked(call, object)) return OperationResult::OK;
  return permission(call).toOpen(object.path, object.metaData, (shareAccess & kShareRead) != 0,
                                 resizes || (shareAccess & kShareWrite) != 0);
}

OperationResult statusOfReading(const Call& call, const FsObjectStateId& stateId) {
  const Object& object = call.current();
  if (!isChecked(call, object)) return OperationResult::OK;
  const OperationResult status = permission(call).toRead(object.path, object.metaData);
  const bool wasLet =
      status != OperationResult::OK && standsForOpen(stateId) && isOpenForReading(call, stateId);
  return wasLet ? OperationResult::OK : status;
}

OperationResult statusOfWriting(const Call& call, const FsObjectStateId& stateId) {
  const Object& object = call.current();
  if (!isChecked(call, object) || standsForOpen(stateId)) return OperationResult::OK;
  return permission(call).toWrite(object.path, object.metaData);
}

OperationResult statusOfSetting(const Call& call, const FsObjectStateId& stateId,
                                const Nfs4SetAttributes& values) {
  const Object& object = call.current();
  if (!isChecked(call, object)) return OperationResult::OK;
  utility::AttributeChange change = changeOf(call, values);
  if (standsForOpen(stateId)) change.size = false;
  return permission(call).toSet(object.path, object.metaData, change);
}

void requireRightToMake(const Call& call, const Nfs4SetAttributes& values) {
  const Object& directory = call.current();
  if (!isChecked(call, directory)) return;
  const MetaData& md = directory.metaData;
  require(permission(call).toChangeEntries(directory.path, md));
  const auto owner = utility::ownerOfNew(call.service.profile(), md.mode, md.gid, call.caller);
  if (owner) require(permission(call).toMake(directory.path, *owner, changeOf(call, values)));
}

void requireRightToRemove(const Call& call, const std::string& name) {
  if (!isChecked(call, call.current())) return;
  require(statusOfRemoving(placeIn(call.current(), name), call.caller));
}

void requireRightToMove(const Call& call, const std::string& from, const std::string& to) {
  if (!isChecked(call, call.current()) || !isChecked(call, call.saved())) return;
  require(statusOfMoving(placeIn(call.saved(), from), placeIn(call.current(), to), call.caller));
}

}  // namespace nfslib::nfs4
