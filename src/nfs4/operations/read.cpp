#include "fs/file_data.h"
#include "nfs4/open_states.h"
#include "nfs4/operations.h"
#include "nfs4/rights.h"

#include <algorithm>
#include <cstdint>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

constexpr unsigned kMaxRead = 8U << 20U;  // announced as maxread; a reply holds less

}  // namespace

OperationResult CRead::execute(Call& call) {
  FsObjectStateId stateId;
  std::uint64_t offset = 0;
  unsigned count = 0;
  call.stream >> stateId >> offset >> count;
  checkDecoded(call);
  log().dbg("Read: stateId [%1], offset [%2], count[%3]", textOf(stateId), offset, count);

  const auto& object = call.current();
  std::shared_ptr<File> file;
  OperationResult status = statusUnlessFile(object);
  if (status == OperationResult::OK) status = statusOfReading(call, stateId);
  if (status == OperationResult::OK) {
    status = openStates(call).use(call, stateId, OpenStates::Use::Read, file);
  }
  return respond(call, 25, status, [&] {
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
    writeFileData(call.stream, file, offset, static_cast<unsigned>(std::min(left, most)),
                  isRecorded ? SendFromFile::Forbidden : SendFromFile::Allowed);
  });
}

}  // namespace nfslib::nfs4::operations
