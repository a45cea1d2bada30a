#include "nfs4/open_states.h"

namespace nfslib::nfs4 {

using nfs::OperationResult;

namespace {

class SessionOpenStates final : public OpenStates {
 public:
  OperationResult open(Call& call, const Request& request, Opened& opened) const override {
    const auto& object = call.current();
    opened.isNew = call.session().opened(object.fileSystem->openFile(object.path),
                                         {request.clientId, request.owner});
    opened.stateId = {object.stateSequenceId, object.stateOther};
    return OperationResult::OK;
  }

  void takeBack(Call& call, const Opened&) const override { call.session().closed(); }

  OperationResult close(Call& call, FsObjectStateId& stateId) const override {
    auto& object = call.current();
    const OperationResult status = statusOfStateId(object, stateId);
    if (status == OperationResult::OK) {
      const bool wasLast = call.session().closed();
      if (wasLast && object.fileSystem) object.fileSystem->closeFile(object.path);
      object.stateSequenceId = kClosedSequenceId;
      object.stateOther = {};
    }
    stateId = {object.stateSequenceId, object.stateOther};
    return status;
  }

  OperationResult downgrade(Call&, const Request&, FsObjectStateId&) const override {
    return OperationResult::NotSupported;
  }

  OperationResult use(Call& call, const FsObjectStateId& stateId, Use use,
                      std::shared_ptr<File>& file) const override {
    auto& object = call.current();
    if (use == Use::Write && !object.openFile) {
      object.openFile = object.fileSystem->openFile(object.path);
    }
    const bool needsFile = use == Use::Read || use == Use::Write;
    if (needsFile && !object.openFile) return OperationResult::NoFileHandle;
    file = object.openFile;
    return statusOfStateId(object, stateId);
  }

  void rememberExclusive(Call& call, const verifier4& verifier) const override {
    call.session().rememberExclusive(call.current().metaData.fileId, verifier);
  }

  bool madeExclusively(Call& call, std::uint64_t fileId, const verifier4& verifier) const override {
    return call.session().madeExclusively(fileId, verifier);
  }
};

}  // namespace

const OpenStates& sessionOpenStates() {
  static const SessionOpenStates states;
  return states;
}

const OpenStates& openStates(const Call& call) {
  return call.service.profile().isModern ? stateIdOpenStates() : sessionOpenStates();
}

}  // namespace nfslib::nfs4
