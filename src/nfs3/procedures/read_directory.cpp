#include "common/log.h"
#include "common/xdr_records.h"
#include "fs/cache_triggers.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/limits.h"
#include "nfs3/procedures.h"
#include "nfs3/wire_sizes.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;

struct CReadDirectory::Listing {
  NfsHandle handle;
  std::shared_ptr<NfsFileSystem> view;
  NfsPath path;
  MetaData md;
  std::uint64_t cookie = 0;
  FixedOpaque<8> verifier;  // cookieverf3: given back as it came, cookies are never refused
};

// The arguments that READDIR and READDIRPLUS have in common.
CReadDirectory::Listing CReadDirectory::readListing(MemoryStream& stream, NfsService& service) {
  const NfsHandle handle = utility::readHandle(stream, service);
  auto [view, path] = utility::getPath(handle, service);
  MetaData md = view->getMetaData(path);
  Listing listing{handle, std::move(view), std::move(path), std::move(md), 0, {}};
  stream >> listing.cookie >> listing.verifier;
  return listing;
}

void CReadDirectory::execute(MemoryStream& stream, NfsService& service) {
  const Listing listing = readListing(stream, service);
  unsigned count = 0;
  stream >> count;
  utility::checkDecoded(stream);
  log().dbg("readDirectory: dirPath [%1] cookie [%2] count [%3]", listing.path, listing.cookie,
            count);

  list(stream, listing, count, 0, [](const std::string&, const MetaData&) {});
}

void CReadDirectory::executeExtended(MemoryStream& stream, NfsService& service) {
  const Listing listing = readListing(stream, service);
  unsigned dirCount = 0;
  unsigned maxCount = 0;
  stream >> dirCount >> maxCount;
  utility::checkDecoded(stream);
  log().dbg("readDirectoryPlus: dirPath [%1] cookie [%2] dirCount [%3] maxCount [%4]", listing.path,
            listing.cookie, dirCount, maxCount);

  constexpr unsigned kExtraSize = kPostOpAttrSize + kWordSize + kHandleSize;
  list(stream, listing, maxCount, kExtraSize, [&](const std::string& name, const MetaData& md) {
    const NfsHandle handle = listing.view->getHandle(listing.handle, listing.path / name, md);
    stream << PostOpAttr{utility::getAttributes(handle, md)} << PostOpHandle{handle};
  });
}

// Writes the page of at most `limit` bytes. `writeExtra` adds the `extraSize` bytes that an entry
// has behind its cookie.
template <class WriteExtra>
void CReadDirectory::list(MemoryStream& stream, const Listing& listing, unsigned limit,
                          unsigned extraSize, const WriteExtra& writeExtra) {
  limit = std::min({limit, kMaxDirectoryReply, stream.outputLimit()});
  const std::shared_ptr<Directory> dir = listing.view->openDirectory(listing.path);

  stream << OperationResult::OK << PostOpAttr{utility::getAttributes(listing.handle, listing.md)}
         << listing.verifier;

  constexpr unsigned kClosingSize = 2 * kWordSize;
  const unsigned fixedSize = kWordSize + 2 * kHyperSize + extraSize + kClosingSize;
  DirectoryIterator it = getDirectoryIterator(listing, dir);
  std::uint64_t cookie = listing.cookie;
  const auto visit = [&](const std::string& name, const MetaData& md) {
    const bool isFull = stream.getOutputDataSize() + fixedSize + opaqueSize(name.size()) > limit;
    if (isFull) return true;
    stream << true << md.fileId << name << ++cookie;
    writeExtra(name, md);
    return false;
  };
  listing.view->iterateDir(it, std::ref(visit));
  const bool eof = !it;
  cacheIterator(listing, dir, std::move(it), cookie);

  stream << false << eof;
}

// A listing from the start makes a fresh pass: it shows what the directory holds now.
DirectoryIterator CReadDirectory::getDirectoryIterator(const Listing& listing,
                                                       const std::shared_ptr<Directory>& dir) {
  DirectoryIterator it;
  std::uint64_t skipped = 0;
  auto stored = listing.cookie == 0
                    ? std::nullopt
                    : listing.view->positions().take(hostObject(dir), listing.path.isRootPath(),
                                                     listing.md.modifyTime, listing.cookie);
  if (stored) {
    it = std::move(stored->it);
    skipped = stored->cookie;
  } else {
    it = listing.view->getDirIterator(dir);
  }
  // The client may name any cookie; there are no more steps than entries.
  for (; skipped != listing.cookie && it; ++skipped) ++it;
  return it;
}

void CReadDirectory::cacheIterator(const Listing& listing, const std::shared_ptr<Directory>& dir,
                                   DirectoryIterator it, std::uint64_t cookie) {
  if (cookie == 0) return;
  listing.view->positions().store({hostObject(dir), listing.path.isRootPath(),
                                   listing.md.modifyTime, cookie, std::move(it),
                                   CookieOrder::AllEntries});
}

}  // namespace nfslib::nfs3::procedures
