#include "common/log.h"
#include "common/xdr_records.h"
#include "fs/entry_rights.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/limits.h"
#include "nfs3/procedures.h"
#include "nfs3/wire_sizes.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
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

void CReadDirectory::requireRight(const Listing& listing, const rpc::AuthOpaque& caller) {
  utility::require(permissionIn(*listing.view, caller).toList(listing.path, listing.md));
}

void CReadDirectory::execute(MemoryStream& stream, NfsService& service,
                             const rpc::AuthOpaque& caller) {
  const Listing listing = readListing(stream, service);
  unsigned count = 0;
  stream >> count;
  utility::checkDecoded(stream);
  log().dbg("readDirectory: dirPath [%1] cookie [%2] count [%3]", listing.path, listing.cookie,
            count);
  requireRight(listing, caller);

  list(stream, listing, count, 0, [](const std::string&, const MetaData&) {});
}

void CReadDirectory::executeExtended(MemoryStream& stream, NfsService& service,
                                     const rpc::AuthOpaque& caller) {
  const Listing listing = readListing(stream, service);
  unsigned dirCount = 0;
  unsigned maxCount = 0;
  stream >> dirCount >> maxCount;
  utility::checkDecoded(stream);
  log().dbg("readDirectoryPlus: dirPath [%1] cookie [%2] dirCount [%3] maxCount [%4]", listing.path,
            listing.cookie, dirCount, maxCount);
  requireRight(listing, caller);

  constexpr unsigned kExtraSize = kPostOpAttrSize + kWordSize + kHandleSize;
  list(stream, listing, maxCount, kExtraSize, [&](const std::string& name, const MetaData& md) {
    const NfsHandle handle = listing.view->getHandle(listing.handle, listing.path / name, md);
    stream << PostOpAttr{utility::getAttributes(*listing.view, handle, md)} << PostOpHandle{handle};
  });
}

// Writes the page of at most `limit` bytes. `writeExtra` adds the `extraSize` bytes that an entry
// has behind its cookie.
template <class WriteExtra>
void CReadDirectory::list(MemoryStream& stream, const Listing& listing, unsigned limit,
                          unsigned extraSize, const WriteExtra& writeExtra) {
  limit = std::min({limit, kMaxDirectoryReply, stream.outputLimit()});
  NfsFileSystem& view = *listing.view;
  const std::shared_ptr<Directory> dir = view.openDirectory(listing.path);
  const PostOpAttr attributes{utility::getAttributes(view, listing.handle, listing.md)};

  const unsigned start = stream.getOutputPosition();
  stream << OperationResult::OK << attributes << listing.verifier;

  constexpr unsigned kClosingSize = 2 * kWordSize;
  const unsigned fixedSize = kWordSize + 2 * kHyperSize + extraSize + kClosingSize;
  bool isEmpty = true;
  const auto write = [&](const std::string& name, const MetaData& md, std::uint64_t cookie) {
    const bool isFull = stream.getOutputDataSize() + fixedSize + opaqueSize(name.size()) > limit;
    if (isFull) return true;
    stream << true << md.fileId << name << cookie;
    writeExtra(name, md);
    isEmpty = false;
    return false;
  };
  const bool goesOn = !view.profile().listsSelfAndParent || !writeSelfAndParent(listing, write);
  const NfsFileSystem::Listed listed{dir, listing.path.isRootPath(), listing.md.fileId,
                                     listing.md.modifyTime};
  const bool eof =
      goesOn && view.list(listed, listing.cookie, CookieOrder::AllEntries, std::cref(write));
  if (isEmpty && !eof && view.profile().refusesShortPages) {
    // Else the client would ask for ever.
    stream.seekOutput(start, SeekOrigin::Begin);
    stream << OperationResult::TooSmall << attributes;
    return stream.truncateOutput();
  }
  stream << false << eof;
}

// The entries with the cookies 1 and 2, from where the listing goes on. Returns whether the page is
// full before that is done.
template <class Write>
bool CReadDirectory::writeSelfAndParent(const Listing& listing, const Write& write) {
  if (listing.cookie == 0 && write(".", listing.md, 1)) return true;
  if (listing.cookie > 1) return false;
  return write("..", listing.view->getMetaData(listing.path.getParentPath()), 2);
}

}  // namespace nfslib::nfs3::procedures
