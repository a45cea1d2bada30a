#include "nfs4/state_references.h"

#include "nfs4/client.h"

#include <algorithm>

namespace nfslib::nfs4 {

using nfs::OperationResult;

namespace {

bool isFilledWith(const FsObjectStateId& id, std::byte value) {
  return std::ranges::all_of(id.other.bytes, [&](std::byte byte) { return byte == value; });
}
// The one that the COMPOUND itself has come by.
bool isCurrent(const FsObjectStateId& id) {
  return id.sequenceId == 1 && isFilledWith(id, std::byte{0});
}

}  // namespace

bool isAnonymous(const FsObjectStateId& id) {
  return id.sequenceId == 0 && isFilledWith(id, std::byte{0});
}
bool isBypass(const FsObjectStateId& id) {
  return id.sequenceId == ~0U && isFilledWith(id, std::byte{0xFF});
}

StateTable::FileKey keyOf(const NfsHandle& handle) {
  return {handle.fileSystemId, handle.objectId};
}

StateTable::Reference referenceOf(const Call& call, const FsObjectStateId& id) {
  const auto& object = call.current();
  const std::uint64_t client = call.session().clientId();
  const bool isOwn = client != kNoClient && isCurrent(id);
  if (client == kNoClient) {
    const std::uint64_t holder = call.service.openFiles().clientOf(id);
    if (holder != kNoClient) call.service.renewLease(holder);
  }
  return {isOwn ? FsObjectStateId{object.stateSequenceId, object.stateOther} : id, client,
          keyOf(object.handle)};
}

void setCurrentStateId(const Call& call, const FsObjectStateId& id) {
  call.current().stateSequenceId = id.sequenceId;
  call.current().stateOther = id.other;
}

OperationResult statusOfUseless(const Call& call, const FsObjectStateId& id) {
  const auto worth = call.service.openFiles().test(id, call.session().clientId());
  return worth == OperationResult::OK ? OperationResult::BadStateId : worth;
}

OperationResult statusOfOwner(const Call& call, StateOwner& owner) {
  if (const std::uint64_t client = call.session().clientId(); client != kNoClient) {
    owner.clientId = client;
    return OperationResult::OK;
  }
  const auto client = call.service.findClientById(owner.clientId);
  if (!client || client->getMinorVersion() != 0) return OperationResult::StaleClientId;
  client->lease().renew(call.service.now());
  return OperationResult::OK;
}

}  // namespace nfslib::nfs4
