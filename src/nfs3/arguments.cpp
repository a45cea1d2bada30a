#include "nfs3/arguments.h"

#include "common/log.h"
#include "common/status.h"
#include "common/xdr_records.h"

#include <stdexcept>

namespace nfslib::nfs3::procedures::utility {

using nfs::NfsOperationError;
using nfs::OperationResult;

namespace {

void throwIfStale(const NfsHandle& handle, const NfsService& service) {
  if (service.isStaleHandle(handle)) throw NfsOperationError(OperationResult::InvalidFileHandle);
}

}  // namespace

NfsHandle readHandle(MemoryStream& stream, const NfsService& service) {
  NfsHandle handle;
  stream >> handle;
  throwIfStale(handle, service);
  return handle;
}

DirOpArgs readDirOpArgs(MemoryStream& stream, const NfsService& service) {
  DirOpArgs args;
  stream >> args.dir >> args.name;
  throwIfStale(args.dir, service);
  return args;
}

void checkDecoded(const MemoryStream& stream) {
  if (!stream) {
    throw std::runtime_error("The call's arguments are shorter than its procedure takes.");
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
  if (!view->pathExists(path)) throw NfsOperationError(OperationResult::NoEntry);
  return found;
}

}  // namespace nfslib::nfs3::procedures::utility
