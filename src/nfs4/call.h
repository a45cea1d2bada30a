#pragma once

#include "common/credential.h"
#include "common/log.h"
#include "common/memory_stream.h"
#include "common/status.h"
#include "common/xdr_records.h"
#include "nfs4/attributes.h"
#include "nfs4/session.h"
#include "server/nfs_service.h"

#include <cstdint>
#include <memory>
#include <string>

namespace nfslib::nfs4 {

// What a COMPOUND knows of itself while it runs.
struct FlowOptions {
  std::uint32_t minorVersion = 0;
  std::uint32_t operationsCount = 0;   // announced
  std::uint32_t currentOperation = 0;  // from 0
  bool responseFromCache = false;      // the whole reply is repeated
  // What becomes of the operations behind SEQUENCE, unless they are run.
  nfs::OperationResult refusal = nfs::OperationResult::OK;
  std::shared_ptr<Nfs4Session> session;
  Nfs4Session::Lock taken;  // of the session; released before it
};

// All that an operation may need.
struct Call {
  MemoryStream& stream;
  NfsService& service;
  const rpc::AuthOpaque& caller;
  bool writeEnabled;
  FlowOptions& flow;

  Nfs4Session& session() const { return *flow.session; }
  Nfs4Session::FileSystemObject& current() const { return session().getCurrentFileSystemObject(); }
  Nfs4Session::FileSystemObject& saved() const { return session().getSavedFileSystemObject(); }
};

// ---- Attributes as the profile and the minor version have them

inline const AttributeTable& attributeTable(const Call& call) {
  return attributeTable(call.service.profile(), call.flow.minorVersion);
}
inline ShownObject shown(const Call& call, const Nfs4Session::FileSystemObject& object) {
  const bool isExportRoot = !object.isPseudoRoot() && object.path.isRootPath();
  return {object.handle,          object.metaData,        object.fileSystem.get(),
          call.service.profile(), call.flow.minorVersion, isExportRoot};
}

// The same for an entry below the current object.
inline ShownObject shown(const Call& call, const NfsFileSystem& view, const NfsHandle& handle,
                         const MetaData& md) {
  return {handle, md, &view, call.service.profile(), call.flow.minorVersion};
}

// To be called behind an operation's last argument and before any of them is used. Arguments that
// the input does not hold end the COMPOUND with NFS4ERR_BADXDR.
inline void checkDecoded(const Call& call) {
  if (!call.stream) throw nfs::NfsOperationError(nfs::OperationResult::BadXdr);
}

// ---- What is due when the current object is not what an operation works on; OK when it is.

nfs::OperationResult statusUnlessSet(const Nfs4Session::FileSystemObject& object);
nfs::OperationResult statusUnlessDirectory(const Nfs4Session::FileSystemObject& object);
// For files: a directory, a link and other objects have statuses of their own.
nfs::OperationResult statusUnlessFile(const Nfs4Session::FileSystemObject& object);
// The pseudo-root cannot be changed, whatever the server lets change.
nfs::OperationResult statusUnlessChangeable(const Nfs4Session::FileSystemObject& object);
// A stateid of this object; those that this server gives out are never refused.
nfs::OperationResult statusOfStateId(const Nfs4Session::FileSystemObject& object,
                                     const FsObjectStateId& stateId);

constexpr std::uint32_t kClosedSequenceId = 0xFFFF'FFFF;  // of a stateid that CLOSE gave out
std::string textOf(const FsObjectStateId& stateId);

// ---- Results: the operation's number, its status, and on success the body.

// Bytes of the reply that no body may use: the operation behind it has to have room for a status.
constexpr unsigned kReservedSpace = 64;

// The status of a result whose body is written, unless the stream is full: then the body is cut
// off.
nfs::OperationResult statusIfFull(const Call& call, unsigned statusPosition);

// `body` writes behind the status; the whole is then held against the session's limits, which may
// turn a success into a failure.
template <class Body>
nfs::OperationResult respond(const Call& call, unsigned operation, nfs::OperationResult status,
                             const Body& body) {
  call.stream << operation;
  const unsigned statusPosition = call.stream.getOutputPosition();
  call.stream << status;
  if (status != nfs::OperationResult::OK) return status;
  body();
  status = statusIfFull(call, statusPosition);
  if (status != nfs::OperationResult::OK) return status;
  return call.session().checkResponseSize(statusPosition, call.stream);
}
inline nfs::OperationResult respond(const Call& call, unsigned operation,
                                    nfs::OperationResult status) {
  return respond(call, operation, status, [] {});
}
// The same for results that are sent whatever their size, and in calls without a session.
template <class Body>
nfs::OperationResult respondAlways(const Call& call, unsigned operation,
                                   nfs::OperationResult status, const Body& body) {
  call.stream << operation;
  const unsigned statusPosition = call.stream.getOutputPosition();
  call.stream << status;
  if (status != nfs::OperationResult::OK) return status;
  body();
  return statusIfFull(call, statusPosition);
}
inline nfs::OperationResult respondAlways(const Call& call, unsigned operation,
                                          nfs::OperationResult status) {
  return respondAlways(call, operation, status, [] {});
}

}  // namespace nfslib::nfs4
