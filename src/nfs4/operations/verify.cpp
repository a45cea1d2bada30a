#include "nfs4/attributes.h"
#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

OperationResult checkAttributes(Call& call, const Bitmap& bitmap, Nfs4SetAttributes& values) {
  const OperationResult status = statusUnlessSet(call.current());
  if (status != OperationResult::OK) return status;
  if (!areReadable(bitmap, attributeTable(call))) return OperationResult::AttributeNotSupported;
  values = readReadableAttributes(call.stream, bitmap, attributeTable(call));
  checkDecoded(call);
  return OperationResult::OK;
}

}  // namespace

OperationResult CVerify::execute(Call& call, Mode mode) {
  const bool wantsEqual = mode == Mode::Equal;
  Bitmap bitmap;
  unsigned length = 0;
  call.stream >> bitmap;
  log().dbg("Verify: mode [%1], attributes to check [%2]", wantsEqual ? "verify" : "nverify",
            bitmap4ToStr(bitmap));
  call.stream >> length;
  checkDecoded(call);

  const auto& object = call.current();
  Nfs4SetAttributes values;
  OperationResult status = checkAttributes(call, bitmap, values);
  if (status == OperationResult::OK) {
    status = compareAttributes(values, shown(call, object));
    if (!wantsEqual && status == OperationResult::NotSame) {
      status = OperationResult::OK;
    } else if (!wantsEqual && status == OperationResult::OK) {
      status = OperationResult::Same;
    }
  }
  return respond(call, wantsEqual ? 37 : 17, status);
}

}  // namespace nfslib::nfs4::operations
