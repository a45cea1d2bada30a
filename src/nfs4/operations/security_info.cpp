#include "nfs4/names.h"
#include "nfs4/operations.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

// The one flavor that is served. The current object is used up: RFC 8881 section 2.6.3.1.1.8.
OperationResult answer(Call& call, unsigned operation, OperationResult status) {
  constexpr unsigned kFlavors = 1;
  const OperationResult result =
      respond(call, operation, status, [&] { call.stream << kFlavors << unsigned{rpc::AUTH_SYS}; });
  if (status == OperationResult::OK && call.session().clientId() != 0) call.current() = {};
  return result;
}

}  // namespace

OperationResult CSecurityInfo::execute(Call& call) {
  std::string name;
  call.stream >> name;
  checkDecoded(call);
  log().dbg("Security info: name [%1]", name);

  OperationResult status = statusUnlessDirectory(call.current());
  if (status == OperationResult::OK) {
    // Whether there is such an object; the directory stays the current one.
    const auto directory = call.current();
    const bool isThere =
        isOneComponent(name) && call.session().setCurrentFileSystemObject(call.service, name);
    if (!isThere) status = OperationResult::NoEntry;
    call.current() = directory;
  }
  return answer(call, 33, status);
}

OperationResult CSecurityInfo::executeWithoutName(Call& call) {
  enum Style : unsigned { kCurrent = 0, kParent = 1 };
  unsigned style = kCurrent;
  call.stream >> style;
  checkDecoded(call);
  log().dbg("Security info without a name: style [%1]", style);

  OperationResult status = statusUnlessSet(call.current());
  if (status == OperationResult::OK && style > kParent) status = OperationResult::InvalidArgument;
  if (status == OperationResult::OK && style == kParent && call.current().isPseudoRoot()) {
    status = OperationResult::NoEntry;
  }
  return answer(call, 52, status);
}

}  // namespace nfslib::nfs4::operations
