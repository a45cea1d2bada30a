#include "fs/cache_triggers.h"
#include "nfs4/attributes.h"
#include "nfs4/hexadecimal.h"
#include "nfs4/operations.h"
#include "nfs4/read_write_directory_cache.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

constexpr unsigned kMaxReply = 32'768;

struct ReadDirectoryParams {
  std::uint64_t cookie = 0;  // of the last entry that the client has, then of those written
  verifier4 verifier;        // given back as it came
  unsigned dirCount = 0;
  unsigned maxCount = 0;
  Bitmap attributes;
};

// Writes one entry unless it would make the reply too long.
class EntryWriter {
 public:
  EntryWriter(Call& call, ReadDirectoryParams& params)
      : m_stream(call.stream),
        m_params(params),
        m_limit(std::min({params.maxCount, kMaxReply, m_stream.outputLimit() - kReservedSpace})),
        m_before(m_stream.getOutputDataSize() - call.session().responseSize(m_stream)) {}

  bool write(const std::string& name, const NfsHandle& handle, const MetaData& md) {
    constexpr unsigned kClosingSize = 8;
    const unsigned start = m_stream.getOutputPosition();
    // A name that alone is too long is not written at all: what does not fit the stream is cut off.
    if (!hasRoom(start + name.size())) return false;
    m_stream << true << m_params.cookie + 1 << name;
    printAttributes(m_stream, m_params.attributes, handle, md);
    if (hasRoom(m_stream.getOutputPosition() + kClosingSize)) {
      ++m_params.cookie;
      return true;
    }
    m_stream.seekOutput(start, SeekOrigin::Begin);
    m_stream.truncateOutput();
    return false;
  }

 private:
  bool hasRoom(std::size_t position) const { return position - m_before <= m_limit; }

  MemoryStream& m_stream;
  ReadDirectoryParams& m_params;
  const unsigned m_limit;
  const unsigned m_before;  // bytes of the reply that the limit does not count
};

// The exports, as entries of the directory above them.
bool writeExports(Call& call, const ReadDirectoryParams& params, EntryWriter& writer) {
  std::vector<NfsPath> exports = call.service.getExportPaths();
  std::erase_if(exports, [](const NfsPath& path) { return path.nodes().size() != 1; });
  std::sort(exports.begin(), exports.end());
  for (std::uint64_t i = params.cookie; i < exports.size(); ++i) {
    const NfsPath& path = exports[i];
    const NfsHandle handle = call.service.getHandle(path);
    const MetaData md = call.service.getFileSystem(path).second->getMetaData(NfsPath("/"));
    if (!writer.write(path.getFileName(), handle, md)) return false;
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

bool isSelfOrParent(const std::string& name) { return name == "." || name == ".."; }

// At the entry behind the one with the cookie. "." and ".." have none.
DirectoryIterator getDirectoryIterator(NfsFileSystem& view, const std::shared_ptr<Directory>& dir,
                                       const Nfs4Session::FileSystemObject& object,
                                       std::uint64_t cookie) {
  DirectoryIterator it;
  std::uint64_t skipped = 0;
  if (cookie != 0) {
    if (auto stored = view.positions().take(hostObject(dir), object.path.isRootPath(),
                                            object.metaData.modifyTime, cookie,
                                            CookieOrder::WithoutSelfAndParent)) {
      it = std::move(stored->it);
      skipped = stored->cookie;
    }
  }
  if (skipped == 0) it = view.getDirIterator(dir);
  // The client may name any cookie; there are no more steps than entries.
  for (; skipped != cookie && it; ++it) {
    if (!isSelfOrParent(it->name)) ++skipped;
  }
  return it;
}

// Returns whether the listing is complete.
bool writeEntries(const Nfs4Session::FileSystemObject& object, const ReadDirectoryParams& params,
                  EntryWriter& writer) {
  NfsFileSystem& view = *object.fileSystem;
  const std::shared_ptr<Directory> dir = openDirectory(object);
  DirectoryIterator it = getDirectoryIterator(view, dir, object, params.cookie);
  view.iterateDir(it, [&](const std::string& name, const MetaData& md) {
    if (isSelfOrParent(name)) return false;
    const NfsHandle handle = view.getHandle(object.handle, object.path / name, md);
    return !writer.write(name, handle, md);
  });
  const bool eof = !it;
  if (params.cookie != 0) {
    view.positions().store({hostObject(dir), object.path.isRootPath(), object.metaData.modifyTime,
                            params.cookie, std::move(it), CookieOrder::WithoutSelfAndParent});
  }
  return eof;
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
  return respond(call, 26, statusUnlessDirectory(object), [&] {
    call.stream << params.verifier;
    EntryWriter writer(call, params);
    const bool eof = object.isPseudoRoot() ? writeExports(call, params, writer)
                                           : writeEntries(object, params, writer);
    call.stream << false << eof;
  });
}

}  // namespace nfslib::nfs4::operations
