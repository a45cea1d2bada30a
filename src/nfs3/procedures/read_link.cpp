#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/procedures.h"
#include "nfs3/wire_sizes.h"

#include <stdexcept>
#include <string>

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

// The host refuses objects that are not symbolic links.
void CReadLink::execute(MemoryStream& stream, NfsService& service) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const auto [view, path] = utility::getPath(handle, service);
  const MetaData md = view->getMetaData(path);
  log().dbg("readLink: path [%1]", path);

  const std::string target = view->openSymLink(path)->GetTarget();
  // A target that was cut would name something else.
  if (kWordSize + kPostOpAttrSize + opaqueSize(target.size()) > stream.outputSpace()) {
    throw std::runtime_error(
        message("The target of the symbolic link [%1] is too long for a reply: [%2] bytes.", path,
                target.size()));
  }

  stream << OperationResult::OK << PostOpAttr{utility::getAttributes(*view, handle, md)} << target;
}

}  // namespace nfslib::nfs3::procedures
