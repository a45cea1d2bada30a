#include "nfs4/attributes.h"
#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

// Those that the object had when it became current, or was given by an operation since.
nfs::OperationResult CGetAttributes::execute(Call& call) {
  Bitmap requested;
  call.stream >> requested;
  checkDecoded(call);
  log().dbg("Get attributes: [%1]", bitmap4ToStr(requested));

  const auto& object = call.current();
  return respond(call, 9, statusUnlessSet(object),
                 [&] { printAttributes(call.stream, requested, shown(call, object)); });
}

}  // namespace nfslib::nfs4::operations
