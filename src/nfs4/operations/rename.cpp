#include "nfs4/change.h"
#include "nfs4/names.h"
#include "nfs4/operations.h"
#include "nfs4/rights.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

OperationResult statusOf(const Call& call, const std::string& oldName, const std::string& newName) {
  if (newName.empty()) return OperationResult::InvalidArgument;
  OperationResult status = statusUnlessSet(call.current());
  for (const auto* object : {&call.saved(), &call.current()}) {
    if (status == OperationResult::OK) status = statusUnlessSet(*object);
  }
  for (const auto* object : {&call.saved(), &call.current()}) {
    if (status == OperationResult::OK) status = statusUnlessDirectory(*object);
  }
  for (const std::string* name : {&oldName, &newName}) {
    if (status == OperationResult::OK) status = statusIfTooLong(call, *name);
  }
  for (const auto* object : {&call.saved(), &call.current()}) {
    if (status == OperationResult::OK) status = statusUnlessChangeable(*object);
  }
  return status;
}

}  // namespace

// From the saved directory to the current one.
OperationResult CRename::execute(Call& call) {
  std::string oldName;
  std::string newName;
  call.stream >> oldName >> newName;
  checkDecoded(call);
  log().dbg("Rename: old name [%1], new name [%2]", oldName, newName);

  auto& from = call.saved();
  auto& to = call.current();
  ChangedDirectory source(from);
  ChangedDirectory target(to);
  OperationResult status = statusOf(call, oldName, newName);
  if (status == OperationResult::OK) {
    const NfsPath oldPath = from.path / oldName;
    const NfsPath newPath = to.path / newName;
    status = statusOfHostCall(
        call.service.profile(),
        [&] {
          requireRightToMove(call, oldName, newName);
          from.fileSystem->moveEntry(oldName, from.path, to.fileSystem->openDirectory(to.path),
                                     newName);
        },
        [&](std::string_view) {
          log().warn("Failed to rename entry [%1] to [%2]", oldPath, newPath);
          return OperationResult::HardwareIoError;
        });
    if (status == OperationResult::OK) {
      recordMove(*from.fileSystem, oldPath, *to.fileSystem, newPath);
      source.touch();
      target.touch();
    }
  }
  return respond(call, 29, status, [&] { call.stream << source.info() << target.info(); });
}

}  // namespace nfslib::nfs4::operations
