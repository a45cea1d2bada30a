#include "common/host_failure.h"
#include "common/log.h"
#include "common/statistics.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/changing.h"
#include "nfs3/limits.h"
#include "nfs3/procedures.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

// The host has every byte before the reply, whatever stability the client asked for; so the client
// is told that it got what it asked for.
void CWriteFile::execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller) {
  const utility::Changing file(utility::readHandle(stream, service), service);
  std::uint64_t offset = 0;
  unsigned count = 0;
  unsigned stable = 0;  // stable_how
  stream >> offset >> count >> stable;
  log().dbg("writeFile: path [%1], offset [%2], count [%3]", file.path(), offset, count);
  const memory::const_buffer data = stream.readOpaque();
  utility::checkDecoded(stream);
  if (data.size() != count) {
    throw SystemNfsException(
        EINVAL, message("A write of [%1] bytes came with [%2] bytes of data.", count, data.size()));
  }

  utility::require(file.permission(caller).toWrite(file.path(), file.metaData()));

  unsigned written = std::min(count, kMaxTransfer);
  OperationResult status = OperationResult::OK;
  if (written != 0) {
    status = statusOfHostCall(file.profile(), [&] {
      file.view().openFile(file.path())->Write(offset, data.data(), written);
    });
  }
  if (status != OperationResult::OK) written = 0;
  statistics::count(statistics::Counter::BytesWritten, written);
  const WccData wcc = file.wccData();

  stream << status << wcc << written << stable << service.identity().writeVerifier;
}

}  // namespace nfslib::nfs3::procedures
