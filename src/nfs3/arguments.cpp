#include "nfs3/arguments.h"

#include "common/host_failure.h"
#include "common/log.h"
#include "common/status.h"
#include "common/xdr_records.h"
#include "fs/entry_rights.h"
#include "nfs3/limits.h"
#include "nfs3/wire_sizes.h"

#include <exception>

namespace nfslib::nfs3::procedures::utility {

using nfs::NfsOperationError;
using nfs::OperationResult;

namespace {

NfsHandle decodeHandle(MemoryStream& stream, const NfsService& service) {
  NfsHandle handle;
  const bool isThere = stream.getInputDataSize() >= kWordSize;
  stream >> handle;
  // Another length than ours: the handle was never one of this server's.
  if (service.profile().isModern && !stream) {
    if (!isThere) checkDecoded(stream);
    throw NfsOperationError(OperationResult::BadHandle);
  }
  return handle;
}

void throwIfStale(const NfsHandle& handle, const NfsService& service) {
  if (service.isStaleHandle(handle)) throw NfsOperationError(OperationResult::InvalidFileHandle);
}

}  // namespace

NfsHandle readHandle(MemoryStream& stream, const NfsService& service) {
  const NfsHandle handle = decodeHandle(stream, service);
  throwIfStale(handle, service);
  return handle;
}

DirOpArgs readDirOpArgs(MemoryStream& stream, const NfsService& service) {
  DirOpArgs args;
  args.dir = decodeHandle(stream, service);
  stream >> args.name;
  throwIfStale(args.dir, service);
  if (service.profile().isModern && args.name.size() > kMaxNameLength) {
    throw NfsOperationError(OperationResult::FileNameIsTooLong);
  }
  return args;
}

void checkDecoded(const MemoryStream& stream) {
  if (!stream) {
    throw UndecodableArguments("The call's arguments are shorter than its procedure takes.");
  }
}

ViewAndPath getPath(const NfsHandle& handle, const NfsService& service) {
  auto view = service.getFileSystem(handle).second;
  auto path = view->findPath(handle);
  if (!path) {
    log().err("NFS handle [%1] is invalid.", handle);
    throw NfsOperationError(OperationResult::InvalidFileHandle);
  }
  return {std::move(view), *std::move(path)};
}

void require(OperationResult status) {
  if (status != OperationResult::OK) throw NfsOperationError(status);
}

FoundEntry findEntry(const DirOpArgs& args, const NfsService& service,
                     const rpc::AuthOpaque& caller) {
  auto [view, directory] = getPath(args.dir, service);
  FoundEntry found{std::move(view), directory / args.name, std::nullopt};
  if (service.profile().checksRights) {
    found.directory = found.view->getMetaData(directory);
    require(permissionIn(*found.view, caller).toSearch(directory, *found.directory));
  }
  if (service.profile().isModern) {
    if (args.name.empty() || args.name.find('/') != args.name.npos) {
      throw NfsOperationError(OperationResult::InvalidArgument);
    }
    entryMetaData(*found.view, found.path);
  } else if (!found.view->pathExists(found.path)) {
    throw NfsOperationError(OperationResult::NoEntry);
  }
  return found;
}

MetaData entryMetaData(NfsFileSystem& view, const NfsPath& path) {
  try {
    return view.lookUpMetaData(path);
  } catch (const std::exception& e) {
    throw NfsOperationError(view.statusOfAbsence(path, e));
  }
}

}  // namespace nfslib::nfs3::procedures::utility
