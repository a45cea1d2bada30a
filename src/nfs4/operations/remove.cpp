#include "nfs4/change.h"
#include "nfs4/names.h"
#include "nfs4/operations.h"
#include "nfs4/rights.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

// The view and the host tell why by their words alone.
OperationResult statusOfRefusal(std::string_view why) {
  log().warn("Unable to remove directory entry: [%1]", why);
  if (why.find("Directory is not empty") != why.npos) return OperationResult::DirectoryIsNotEmpty;
  if (why.find("Cannot get metadata for path") != why.npos) return OperationResult::NoEntry;
  return OperationResult::HardwareIoError;
}

}  // namespace

OperationResult CRemove::execute(Call& call) {
  std::string name;
  call.stream >> name;
  checkDecoded(call);
  log().dbg("Remove: [%1]", name);

  auto& object = call.current();
  ChangedDirectory directory(object);
  OperationResult status = statusUnlessDirectory(object);
  if (status == OperationResult::OK) status = statusIfTooLong(call, name);
  if (status == OperationResult::OK) status = statusUnlessChangeable(object);
  if (status == OperationResult::OK) {
    status = statusOfHostCall(
        call.service.profile(),
        [&] {
          requireRightToRemove(call, name);
          object.fileSystem->remove(name, object.path);
          object.fileSystem->recordRemoval(object.path / name);
          object.fileSystem->openDirectory(object.path);
        },
        statusOfRefusal);
  }
  if (status == OperationResult::OK) directory.touch();
  return respond(call, 28, status, [&] { call.stream << directory.info(); });
}

}  // namespace nfslib::nfs4::operations
