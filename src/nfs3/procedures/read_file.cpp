#include "common/log.h"
#include "common/xdr_records.h"
#include "fs/entry_rights.h"
#include "fs/file_data.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/limits.h"
#include "nfs3/procedures.h"
#include "nfs3/wire_sizes.h"

#include <algorithm>
#include <cstdint>
#include <memory>

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

namespace {

// The bytes of data that a reply written from here on can carry: a datagram holds few.
unsigned roomForData(const MemoryStream& stream) {
  constexpr unsigned kInFront = kWordSize + kPostOpAttrSize + 2 * kWordSize;  // ... count, eof
  const unsigned space = stream.outputSpace();
  return longestOpaque(space - std::min(space, kInFront));
}

}  // namespace

void CReadFile::execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const auto [view, path] = utility::getPath(handle, service);
  const MetaData md = view->getMetaData(path);
  std::uint64_t offset = 0;
  unsigned count = 0;
  stream >> offset >> count;
  utility::checkDecoded(stream);
  log().dbg("readFile: path [%1], offset [%2], count[%3]", path, offset, count);
  utility::require(permissionIn(*view, caller).toRead(path, md));

  // offset + count may be more than 64 bits hold; what is left of the file is not.
  const std::uint64_t left = md.size - std::min(md.size, offset);
  const std::uint64_t most = std::min({count, kMaxTransfer, roomForData(stream)});
  const auto length = static_cast<unsigned>(std::min(left, most));
  const bool eof = left <= most;
  const std::shared_ptr<File> file = length != 0 ? view->openFile(path) : nullptr;

  stream << OperationResult::OK << PostOpAttr{utility::getAttributes(*view, handle, md)} << length
         << eof;
  writeFileData(stream, file, offset, length, SendFromFile::Allowed);
}

}  // namespace nfslib::nfs3::procedures
