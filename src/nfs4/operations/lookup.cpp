#include "nfs4/names.h"
#include "nfs4/operations.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

OperationResult CLookup::execute(Call& call) {
  std::string name;
  call.stream >> name;
  checkDecoded(call);
  log().dbg("Lookup: object name [%1]", name);

  const auto& object = call.current();
  OperationResult status = isType(object.metaData, FileType::SymbolicLink) && object.isSet()
                               ? OperationResult::SymbolicLink
                               : statusUnlessDirectory(object);
  if (status == OperationResult::OK && !isOneComponent(name)) {
    status = OperationResult::NoEntry;
  } else if (status == OperationResult::OK &&
             !call.session().setCurrentFileSystemObject(call.service, name)) {
    status = call.session().refusalOr(OperationResult::NoEntry);
  }
  return respond(call, 15, status);
}

}  // namespace nfslib::nfs4::operations
