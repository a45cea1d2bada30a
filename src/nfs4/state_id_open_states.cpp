#include "nfs4/open_states.h"
#include "nfs4/state_references.h"

namespace nfslib::nfs4 {

using nfs::OperationResult;

namespace {

// The result flags of OPEN, RFC 7530 section 16.16
constexpr unsigned kMustConfirm = 2;  // OPEN4_RESULT_CONFIRM
constexpr unsigned kLocksSplit = 4;   // OPEN4_RESULT_LOCKTYPE_POSIX

OperationResult checkShare(const Call& call, const OpenStates::Request& request) {
  if (request.access == kShareNone || request.access > kShareBoth || request.deny > kShareBoth) {
    return OperationResult::InvalidArgument;
  }
  const bool writes = (request.access & kShareWrite) != 0;
  return writes && !call.writeEnabled ? OperationResult::ReadOnlyFileSystem : OperationResult::OK;
}

class StateIdOpenStates final : public OpenStates {
 public:
  OperationResult open(Call& call, const Request& request, Opened& opened) const override {
    StateTable::Owner owner{request.clientId, request.owner};
    OperationResult status = statusOfOwner(call, owner);
    if (status == OperationResult::OK) status = checkShare(call, request);
    if (status != OperationResult::OK) return status;
    const auto& object = call.current();
    StateTable& table = call.service.openFiles();
    StateTable::Held held{object.fileSystem->openFile(object.path), object.path};
    StateTable::Opened entered;
    status = table.open(keyOf(object.handle), owner,
                        {request.access, request.deny, !request.needsConfirmation}, std::move(held),
                        entered);
    if (status != OperationResult::OK) return status;
    if (!call.service.findClientById(owner.clientId)) {
      // It was dropped meanwhile, and nobody else would take this away.
      table.dropClient(owner.clientId);
      const bool hasSession = call.session().clientId() != kNoClient;
      return hasSession ? OperationResult::DeadSession : OperationResult::StaleClientId;
    }
    opened = {entered.id, entered.isNew,
              kLocksSplit | (request.needsConfirmation ? kMustConfirm : 0)};
    setCurrentStateId(call, opened.stateId);
    return OperationResult::OK;
  }

  void takeBack(Call& call, const Opened& opened) const override {
    call.service.openFiles().takeBack(opened.stateId);
  }

  OperationResult close(Call& call, FsObjectStateId& stateId) const override {
    const auto status = call.service.openFiles().close(referenceOf(call, stateId), stateId);
    // Where nobody needs it any more, it is made one that is never valid: RFC 8881 section 18.2.4.
    if (call.session().clientId() != kNoClient) stateId = {kClosedSequenceId, {}};
    return status;
  }

  OperationResult downgrade(Call& call, const Request& request,
                            FsObjectStateId& stateId) const override {
    OperationResult status = checkShare(call, request);
    if (status != OperationResult::OK) return status;
    status = call.service.openFiles().downgrade(referenceOf(call, stateId), request.access,
                                                request.deny, stateId);
    if (status == OperationResult::OK) setCurrentStateId(call, stateId);
    return status;
  }

  OperationResult use(Call& call, const FsObjectStateId& stateId, Use use,
                      std::shared_ptr<File>& file) const override {
    if (use == Use::Touch) return OperationResult::OK;
    const auto& object = call.current();
    const unsigned access = use == Use::Read ? kShareRead : kShareWrite;
    StateTable& table = call.service.openFiles();
    StateTable::Held held;
    if (isAnonymous(stateId) || isBypass(stateId)) {
      // Reading past all share reservations is what the second one is for.
      const bool passes = use == Use::Read && isBypass(stateId);
      if (!passes && !table.isFree(keyOf(object.handle), access)) return OperationResult::Locked;
      if (use != Use::Resize) file = object.fileSystem->openFile(object.path);
      return OperationResult::OK;
    }
    const StateTable::Reference reference = referenceOf(call, stateId);
    // Who may write may read: a client has to fill the rest of a page (RFC 7530 section 16.23.4).
    OperationResult status = table.find(reference, access, held);
    if (status == OperationResult::OpenMode && use == Use::Read) {
      status = table.find(reference, kShareWrite, held);
    }
    if (status != OperationResult::OK || use == Use::Resize) return status;
    if (!held.file || !(held.path == object.path)) {
      // Not held, or renamed since: what is written must be told of the path that it has now.
      held = {object.fileSystem->openFile(object.path), object.path};
      table.replace(reference, held);
    }
    file = std::move(held.file);
    return OperationResult::OK;
  }

  void rememberExclusive(Call& call, const verifier4& verifier) const override {
    call.service.openFiles().rememberExclusive(keyOf(call.current().handle), verifier);
  }

  bool madeExclusively(Call& call, std::uint64_t fileId, const verifier4& verifier) const override {
    return call.service.openFiles().madeExclusively({call.current().handle.fileSystemId, fileId},
                                                    verifier);
  }
};

}  // namespace

const OpenStates& stateIdOpenStates() {
  static const StateIdOpenStates states;
  return states;
}

}  // namespace nfslib::nfs4
