#include "nfs4/hexadecimal.h"
#include "nfs4/operations.h"

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

// Every connection carries calls of every session; none carries callbacks.
OperationResult CBindConnection::execute(Call& call) {
  enum Direction : unsigned { kFore = 1, kForeOrBoth = 3 };
  sessionid session;
  unsigned direction = 0;
  bool usesRdma = false;
  call.stream >> session >> direction >> usesRdma;
  checkDecoded(call);
  log().dbg("Bind connection to session: sessionId [%1], direction [%2]",
            hexadecimal(session.bytes), direction);

  OperationResult status = OperationResult::OK;
  if (!call.service.findSessionById(session)) {
    status = OperationResult::BadSession;
  } else if (direction != kFore && direction != kForeOrBoth) {
    status = OperationResult::InvalidArgument;
  }
  return respondAlways(call, 41, status, [&] {
    constexpr bool kNoRdma = false;
    call.stream << session << unsigned{kFore} << kNoRdma;
  });
}

}  // namespace nfslib::nfs4::operations
