#include "fs/entry_name.h"
#include "nfs4/change.h"
#include "nfs4/names.h"
#include "nfs4/operations.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

OperationResult statusOf(const Call& call, const std::string& name) {
  OperationResult status = statusUnlessDirectory(call.current());
  if (status == OperationResult::OK) status = statusIfTooLong(call, name);
  if (status == OperationResult::OK) status = statusUnlessSet(call.saved());
  if (status == OperationResult::OK) status = statusUnlessChangeable(call.current());
  if (status != OperationResult::OK) return status;
  status = statusUnlessFile(call.saved());
  return status == OperationResult::WrongType ? OperationResult::OK : status;
}

}  // namespace

// The saved file gets a name in the current directory.
OperationResult CLink::execute(Call& call) {
  std::string name;
  call.stream >> name;
  checkDecoded(call);
  log().dbg("Link: new name [%1]", name);

  auto& object = call.current();
  const auto& file = call.saved();
  ChangedDirectory directory(object);
  OperationResult status = statusOf(call, name);
  if (status == OperationResult::OK) {
    status = statusOfHostCall(
        call.service.profile(),
        [&] {
          requireEntryName(name);
          const auto parent = object.fileSystem->openDirectory(object.path);
          parent->Link(name, file.fileSystem->openFile(file.path));
        },
        [&](std::string_view why) {
          log().warn("Cannot create link [%1] on entry [%2]: [%3]", name, file.path, why);
          return OperationResult::HardwareIoError;
        });
  }
  if (status == OperationResult::OK) {
    directory.touch();
    // The handle stays good when the file loses its other names.
    const NfsPath path = object.path / name;
    object.fileSystem->getHandle(object.handle, path, object.fileSystem->getMetaData(path));
  }
  return respond(call, 11, status, [&] { call.stream << directory.info(); });
}

}  // namespace nfslib::nfs4::operations
