#include "fs/file_data.h"
#include "nfs4/operations.h"

#include <algorithm>
#include <cstdint>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

constexpr unsigned kMaxRead = 8U << 20U;  // announced as maxread; a reply holds less

OperationResult statusOf(const Call& call, const FsObjectStateId& stateId) {
  const auto& object = call.current();
  const OperationResult status = statusUnlessFile(object);
  if (status == OperationResult::NoFileHandle) return status;
  if (status == OperationResult::OK && !object.openFile) return OperationResult::NoFileHandle;
  return status == OperationResult::OK ? statusOfStateId(object, stateId) : status;
}

}  // namespace

OperationResult CRead::execute(Call& call) {
  FsObjectStateId stateId;
  std::uint64_t offset = 0;
  unsigned count = 0;
  call.stream >> stateId >> offset >> count;
  checkDecoded(call);
  log().dbg("Read: stateId [%1], offset [%2], count[%3]", textOf(stateId), offset, count);

  const auto& object = call.current();
  return respond(call, 25, statusOf(call, stateId), [&] {
    const std::uint64_t size = object.fileSystem->getMetaData(object.path).size;
    const std::uint64_t left = size - std::min(size, offset);
    constexpr unsigned kInFront = 8 + kReservedSpace;  // eof, the length
    const unsigned space = call.stream.outputSpace();
    const unsigned room = (space - std::min(space, kInFront)) / 4 * 4;
    const std::uint64_t most = std::min({count, kMaxRead, room});
    const bool eof = left <= most;
    call.stream << eof;
    // A reply that is recorded has to be in the stream.
    const bool isRecorded = call.session().getCurrentResponse() != nullptr;
    writeFileData(call.stream, object.openFile, offset, static_cast<unsigned>(std::min(left, most)),
                  isRecorded ? SendFromFile::Forbidden : SendFromFile::Allowed);
  });
}

}  // namespace nfslib::nfs4::operations
