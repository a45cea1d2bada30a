#include "common/clock.h"
#include "common/host_failure.h"
#include "common/statistics.h"
#include "nfs4/open_states.h"
#include "nfs4/operations.h"
#include "nfs4/read_write_directory_cache.h"
#include "nfs4/rights.h"

#include <cstdint>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

constexpr unsigned kFileSync = 2;  // FILE_SYNC4: the host has every byte

void write(const Call& call, File& file, std::uint64_t offset, const memory::const_buffer& data) {
  auto& object = call.current();
  file.Write(offset, data.data(), data.size());
  statistics::count(statistics::Counter::BytesWritten, data.size());
  object.metaData = file.GetMetaData();
  if (!call.service.profile().stampsTimes) return;
  object.metaData.changeTime = object.metaData.modifyTime = utility::currentSeconds();
  file.SetMetaData(object.metaData);
}

// Listings go on with the directory as it is held here.
void putParentDirectoryToCache(const Nfs4Session::FileSystemObject& object) {
  const NfsPath parent = object.path.getParentPath();
  auto& cache = ReadWriteDirectoryCache::instance();
  const DirectoryKey key{object.handle.fileSystemId, parent.str()};
  if (!cache.findCachedDirectory(key)) {
    cache.addDirectoryToCache(key, object.fileSystem->openDirectory(parent));
  }
}

}  // namespace

OperationResult CWrite::execute(Call& call) {
  FsObjectStateId stateId;
  std::uint64_t offset = 0;
  unsigned stable = 0;
  call.stream >> stateId >> offset >> stable;
  log().dbg("Write: stateId [%1], offset [%2], stable[%3]", textOf(stateId), offset, stable);
  const memory::const_buffer data = call.stream.readOpaque();
  checkDecoded(call);

  OperationResult status = statusUnlessChangeable(call.current());
  if (status == OperationResult::OK) status = statusUnlessFile(call.current());
  if (status == OperationResult::OK) status = statusOfWriting(call, stateId);
  std::shared_ptr<File> file;
  if (status == OperationResult::OK) {
    status = openStates(call).use(call, stateId, OpenStates::Use::Write, file);
  }
  if (status == OperationResult::OK && data) {
    auto& object = call.current();
    status = statusOfHostCall(
        call.service.profile(), [&] { write(call, *file, offset, data); },
        [&](std::string_view) {
          log().warn("Failed to write data (%1 bytes) to file [%2]", data.size(), object.path);
          return OperationResult::HardwareIoError;
        });
    if (status == OperationResult::NoSpaceLeftOnDevice) putParentDirectoryToCache(object);
  }
  return respond(call, 38, status, [&] {
    call.stream << static_cast<unsigned>(data.size()) << kFileSync
                << call.service.identity().writeVerifier;
  });
}

}  // namespace nfslib::nfs4::operations
