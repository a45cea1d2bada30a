#pragma once

#include <nfslib/nfs_path.h>

#include "common/credential.h"
#include "common/memory_stream.h"
#include "common/nfs_handle.h"
#include "common/status.h"
#include "fs/nfs_file_system.h"
#include "server/nfs_service.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace nfslib::nfs3 {

// diropargs3, RFC 1813 section 2.6
struct DirOpArgs {
  NfsHandle dir;
  std::string name;
};

// What the procedures share to decode their arguments and to find the object that is meant. The
// failures thrown as nfs::NfsOperationError are answered with their status and nothing else, so
// everything here is called before a result is written.
namespace procedures::utility {

using ViewAndPath = std::pair<std::shared_ptr<NfsFileSystem>, NfsPath>;

// In the modern profile a handle that cannot be decoded throws BadHandle, and a name that is too
// long FileNameIsTooLong. A handle of another start of the server throws InvalidFileHandle. So does
// one that could not be decoded: it stays zero, and no start of the server is that old.
NfsHandle readHandle(MemoryStream& stream, const NfsService& service);
DirOpArgs readDirOpArgs(MemoryStream& stream, const NfsService& service);

// To be called behind the last argument and before any of them is used: throws
// UndecodableArguments, which ends the call as garbage, when the input was too short for them.
void checkDecoded(const MemoryStream& stream);

// The export and the path that the handle names. InvalidFileHandle when no object is known by it,
// UnknownHandle when there is no such export.
ViewAndPath getPath(const NfsHandle& handle, const NfsService& service);
// The same for a name in a directory, which the caller has to have the right to search. NoEntry
// when there is no such entry.
struct FoundEntry {
  std::shared_ptr<NfsFileSystem> view;
  NfsPath path;
  std::optional<MetaData> directory;  // its attributes, where its rights were checked
};
FoundEntry findEntry(const DirOpArgs& args, const NfsService& service,
                     const rpc::AuthOpaque& caller);

// Throws NfsOperationError unless the status is OK: a right that the caller does not have.
void require(nfs::OperationResult status);

// The attributes of the entry at `path`. Throws NfsOperationError with the status that tells why
// there are none, and as getMetaData does when there is no such directory.
MetaData entryMetaData(NfsFileSystem& view, const NfsPath& path);

}  // namespace procedures::utility

}  // namespace nfslib::nfs3
