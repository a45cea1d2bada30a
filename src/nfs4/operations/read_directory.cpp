#include "nfs4/attributes.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/operations.h"
#include "nfs4/read_write_directory_cache.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

constexpr unsigned kMaxReply = 32'768;

struct ReadDirectoryParams {
  std::uint64_t cookie = 0;  // of the last entry that the client has
  verifier4 verifier;        // given back as it came: cookies are never refused
  unsigned dirCount = 0;
  unsigned maxCount = 0;
  Bitmap attributes;
};

// Writes one entry unless it would make the reply too long.
class EntryWriter {
 public:
  EntryWriter(Call& call, const ReadDirectoryParams& params)
      : m_stream(call.stream),
        m_params(params),
        m_limit(std::min({params.maxCount, kMaxReply, m_stream.outputLimit() - kReservedSpace})),
        m_before(m_stream.getOutputDataSize() - call.session().responseSize(m_stream)) {}

  bool write(const std::string& name, std::uint64_t cookie, const ShownObject& object) {
    constexpr unsigned kClosingSize = 8;
    const unsigned start = m_stream.getOutputPosition();
    // A name that alone is too long is not written at all: what does not fit the stream is cut off.
    if (!hasRoom(start + name.size())) return false;
    m_stream << true << cookie << name;
    printAttributes(m_stream, m_params.attributes, object);
    if (hasRoom(m_stream.getOutputPosition() + kClosingSize)) {
      m_isEmpty = false;
      return true;
    }
    m_stream.seekOutput(start, SeekOrigin::Begin);
    m_stream.truncateOutput();
    return false;
  }
  bool isEmpty() const { return m_isEmpty; }

 private:
  bool hasRoom(std::size_t position) const { return position - m_before <= m_limit; }

  MemoryStream& m_stream;
  const ReadDirectoryParams& m_params;
  const unsigned m_limit;
  const unsigned m_before;  // bytes of the reply that the limit does not count
  bool m_isEmpty = true;
};

using Exports = std::vector<std::pair<std::uint64_t, NfsPath>>;

// Those that are one level below the pseudo-root, with their cookies, which are their ordinals by
// name; or, where cookies have to stay good while exports come and go, made of their numbers.
Exports exportsOf(const Call& call) {
  constexpr std::uint64_t kReserved = 2;  // cookies of "." and ".."
  std::vector<NfsPath> paths = call.service.getExportPaths();
  std::erase_if(paths, [](const NfsPath& path) { return path.nodes().size() != 1; });
  std::sort(paths.begin(), paths.end());
  Exports exports;
  for (NfsPath& path : paths) {
    std::uint64_t cookie = exports.size() + 1;
    if (call.service.profile().remembersListings) {
      const auto number = call.service.findExport(path);
      if (!number) continue;  // withdrawn meanwhile
      cookie = *number + kReserved;
    }
    exports.emplace_back(cookie, std::move(path));
  }
  std::sort(exports.begin(), exports.end());
  return exports;
}

// The exports, as entries of the directory above them.
bool writeExports(Call& call, const ReadDirectoryParams& params, EntryWriter& writer) {
  for (const auto& [cookie, path] : exportsOf(call)) {
    if (cookie <= params.cookie) continue;
    Nfs4Session::FileSystemObject object;
    object.handle = call.service.getHandle(path);
    object.fileSystem = call.service.getFileSystem(path).second;
    object.metaData = object.fileSystem->getMetaData(object.path);
    if (!writer.write(path.getFileName(), cookie, shown(call, object))) return false;
  }
  return true;
}

// The directory that ran out of space lately is held; unless another has its place by now.
std::shared_ptr<Directory> openDirectory(const Nfs4Session::FileSystemObject& object) {
  const auto held = ReadWriteDirectoryCache::instance().findCachedDirectory(
      {object.handle.fileSystemId, object.path.str()});
  if (held) {
    try {
      if (held->GetMetaData().fileId == object.metaData.fileId) return held;
    } catch (const std::exception& e) {
      log().dbg("A held directory is gone: [%1]", e.what());
    }
  }
  return object.fileSystem->openDirectory(object.path);
}

// Returns whether the listing is complete.
bool writeEntries(const Call& call, const ReadDirectoryParams& params, EntryWriter& writer) {
  const Nfs4Session::FileSystemObject& object = call.current();
  NfsFileSystem& view = *object.fileSystem;
  const NfsFileSystem::Listed listed{openDirectory(object), object.path.isRootPath(),
                                     object.metaData.fileId, object.metaData.modifyTime};
  // Only handles that a client gets have to lead back to their objects.
  constexpr unsigned kHandle = 1U << 19U;
  const bool givesHandles = !params.attributes.empty() && (params.attributes[0] & kHandle) != 0;
  const auto visit = [&](const std::string& name, const MetaData& md, std::uint64_t cookie) {
    const NfsHandle handle = givesHandles ? view.getHandle(object.handle, object.path / name, md)
                                          : NfsFileSystem::createHandle(object.handle, md);
    return !writer.write(name, cookie, shown(call, view, handle, md));
  };
  return view.list(listed, params.cookie, CookieOrder::WithoutSelfAndParent, std::cref(visit));
}

}  // namespace

OperationResult CReadDirectory::execute(Call& call) {
  ReadDirectoryParams params;
  call.stream >> params.cookie >> params.verifier >> params.dirCount >> params.maxCount >>
      params.attributes;
  checkDecoded(call);
  log().dbg(
      "Read directory: cookie [%1], verifier [%2], count [%3], max count [%4], requested "
      "attributes [%5]",
      params.cookie, hexadecimal(params.verifier.bytes), params.dirCount, params.maxCount,
      bitmap4ToStr(params.attributes));

  const auto& object = call.current();
  const unsigned start = call.stream.getOutputPosition();
  bool isTooSmall = false;
  OperationResult status = respond(call, 26, statusUnlessDirectory(object), [&] {
    call.stream << params.verifier;
    EntryWriter writer(call, params);
    const bool eof = object.isPseudoRoot() ? writeExports(call, params, writer)
                                           : writeEntries(call, params, writer);
    call.stream << false << eof;
    isTooSmall = writer.isEmpty() && !eof && call.service.profile().refusesShortPages;
  });
  if (status == OperationResult::OK && isTooSmall) {
    // Else the client would ask for ever.
    call.stream.seekOutput(start, SeekOrigin::Begin);
    status = respond(call, 26, OperationResult::TooSmall);
    call.stream.truncateOutput();
  }
  return status;
}

}  // namespace nfslib::nfs4::operations
