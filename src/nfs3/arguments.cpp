#include "nfs3/arguments.h"

#include "common/host_failure.h"
#include "common/log.h"
#include "common/status.h"
#include "common/xdr_records.h"
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

ViewAndPath getPath(const DirOpArgs& args, const NfsService& service) {
  ViewAndPath found = getPath(args.dir, service);
  auto& [view, path] = found;
  path = path / args.name;
  if (service.profile().isModern) {
    if (args.name.empty() || args.name.find('/') != args.name.npos) {
      throw NfsOperationError(OperationResult::InvalidArgument);
    }
    entryMetaData(*view, path);
  } else if (!view->pathExists(path)) {
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
