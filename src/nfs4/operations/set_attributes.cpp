#include "nfs4/attributes.h"
#include "nfs4/change.h"
#include "nfs4/open_states.h"
#include "nfs4/operations.h"
#include "nfs4/rights.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CSetAttributes::execute(Call& call) {
  FsObjectStateId stateId;
  Bitmap bitmap;
  call.stream >> stateId >> bitmap;
  checkDecoded(call);
  log().dbg("Set attributes: state ID [%1], attributes to set [%2]", textOf(stateId),
            bitmap4ToStr(bitmap));

  auto& object = call.current();
  OperationResult status = statusUnlessChangeable(object);
  if (status == OperationResult::OK) {
    constexpr unsigned kSize = 1U << 4U;
    const bool resizes = !bitmap.empty() && (bitmap[0] & kSize) != 0;
    std::shared_ptr<File> unused;
    status = openStates(call).use(
        call, stateId, resizes ? OpenStates::Use::Resize : OpenStates::Use::Touch, unused);
  }
  if (status == OperationResult::OK && bitmap.size() > kMostWords) {
    status = OperationResult::AttributeNotSupported;
  }
  const Nfs4SetAttributes values =
      readWritableAttributes(call.stream, bitmap, status, attributeTable(call));
  checkDecoded(call);
  if (status == OperationResult::OK) status = statusOfSetting(call, stateId, values);
  Bitmap applied;
  if (status == OperationResult::OK) {
    status =
        statusOfHostCall(call.service.profile(), [&] { applied = applyAttributes(call, values); });
  }
  // The one result that has a body whatever became of it.
  call.stream << 34U;
  const unsigned statusPosition = call.stream.getOutputPosition();
  call.stream << status << applied;
  if (status != OperationResult::OK) return status;
  return call.session().checkResponseSize(statusPosition, call.stream);
}

}  // namespace nfslib::nfs4::operations
