#include "common/log.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/limits.h"
#include "nfs3/procedures.h"

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

namespace {

enum Property : unsigned {
  kHardLinks = 0x1,      // FSF3_LINK
  kSymbolicLinks = 0x2,  // FSF3_SYMLINK
  kHomogeneous = 0x8,    // FSF3_HOMOGENEOUS: PATHCONF is the same for every object
};

constexpr unsigned kTimeStepSeconds = 1;
constexpr unsigned kTimeStepNanoseconds = 0;
constexpr unsigned kProperties = kHardLinks | kSymbolicLinks | kHomogeneous;

}  // namespace

void CGetStaticFsInfo::execute(MemoryStream& stream, NfsService& service) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const auto [view, path] = utility::getPath(handle, service);
  const MetaData md = view->getMetaData(path);
  log().dbg("getStaticFsInfo: path [%1]", path);

  stream << OperationResult::OK << PostOpAttr{utility::getAttributes(*view, handle, md)}
         << kMaxTransfer                              // rtmax
         << kMaxTransfer                              // rtpref
         << kTransferMultiple                         // rtmult
         << kMaxTransfer                              // wtmax
         << kMaxTransfer                              // wtpref
         << kTransferMultiple                         // wtmult
         << kMaxDirectoryReply                        // dtpref
         << kMaxFileSize                              // maxfilesize
         << kTimeStepSeconds << kTimeStepNanoseconds  // time_delta
         << kProperties;
}

}  // namespace nfslib::nfs3::procedures
