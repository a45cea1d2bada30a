#include "fs/nfs_file_system.h"

#include "common/clock.h"
#include "common/host_failure.h"
#include "common/log.h"
#include "common/statistics.h"
#include "fs/cache_triggers.h"
#include "fs/entry_name.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace nfslib {

namespace {

constexpr std::size_t kDirectoryCapacity = 2048;
constexpr std::size_t kMetaDataCapacity = 16384;
constexpr std::size_t kPositionCapacity = 32;
constexpr std::size_t kCountedObjects = 131'072;
constexpr std::uint32_t kNanosecondsASecond = 1'000'000'000;

// What a cache gave up. Declared before the lock is taken, so that it goes after the lock: the last
// holder's release runs the destructor of a host object.
template <class Object>
using Displaced = std::optional<std::shared_ptr<Object>>;

// What the host opened; a host that hands out nothing instead of throwing has failed as well.
template <class Object>
std::shared_ptr<Object> opened(std::shared_ptr<Object> object) {
  if (!object) throw std::runtime_error("The host opened nothing and gave no reason.");
  return object;
}

}  // namespace

NfsFileSystem::NfsFileSystem(FileSystem& fs, const NfsMountSpec& spec, const Profile& profile)
    : m_fs(fs),
      m_statistics(profile.tellsStatistics ? dynamic_cast<const IStatistics*>(&fs) : nullptr),
      m_accessControl(profile.checksRights ? dynamic_cast<const IAccessControl*>(&fs) : nullptr),
      m_watchable(dynamic_cast<IWatchable*>(&fs)),
      m_othersChange(m_watchable != nullptr),
      m_profile(profile),
      m_writable(spec.writeEnabled),
      m_directories(kDirectoryCapacity),
      m_files(2 * spec.maxOpenFiles),
      m_metaData(std::make_shared<MetaDataCache>(
          kMetaDataCapacity,
          m_writable || m_watchable ? MetaDataCache::Tree::Changing : MetaDataCache::Tree::Fixed)),
      m_positions(kPositionCapacity) {
  if (profile.countsChanges) m_metaData->countChanges(kCountedObjects);
}

NfsFileSystem::~NfsFileSystem() {
  log().info("NFS handle map size: [%1].", m_handles.size());
  log().info("Directory cache size: [%1].", m_directories.size());
  log().info("MetaData cache size: [%1].", m_metaData->size());
}

NfsHandle NfsFileSystem::createHandle(const NfsHandle& base, const MetaData& md) {
  return {base.generation, base.fileSystemId, md.fileId};
}

NfsHandle NfsFileSystem::getHandle(const NfsHandle& base, const NfsPath& path, const MetaData& md) {
  const NfsHandle handle = createHandle(base, md);
  log().dbg("Create handle for path [%1], handle [%2]", path, handle);
  const bool oneName = isType(md, FileType::Directory);
  m_handles.remember(handle.objectId, path, oneName ? 1 : md.linkCount);
  return handle;
}

std::optional<NfsPath> NfsFileSystem::findPath(const NfsHandle& handle) {
  auto path = m_handles.find(handle.objectId);
  if (!path || !m_othersChange || mayLeadTo(*path, handle)) return path;
  // A name that is gone stays known: news of where its object went to may be on their way.
  for (const NfsPath& name : m_handles.namesOf(handle.objectId)) {
    if (!(name == *path) && mayLeadTo(name, handle)) return name;
  }
  return std::nullopt;
}

bool NfsFileSystem::mayLeadTo(const NfsPath& path, const NfsHandle& handle) {
  if (path.isRootPath()) return true;
  try {
    const auto kept = m_metaData->findId(path);
    const std::uint64_t id = kept ? *kept : lookUpMetaData(path).fileId;
    return static_cast<std::uint32_t>(id) == static_cast<std::uint32_t>(handle.objectId);
  } catch (const std::exception& e) {
    const auto status = toldStatus(e);
    return status != nfs::OperationResult::NoEntry && status != nfs::OperationResult::NotDirectory;
  }
}

NfsPath NfsFileSystem::getPath(const NfsHandle& handle) {
  if (auto path = findPath(handle)) return *std::move(path);
  log().err("NFS handle [%1] is invalid.", handle);
  throw UnknownHandle("NFS handle is invalid.");
}

std::optional<MetaData> NfsFileSystem::findMetaData(const NfsPath& path) {
  try {
    return lookUpMetaData(path);
  } catch (const std::exception& e) {
    log().dbg("Failed to find metadata in cache. Error: [%1].", e.what());
    return std::nullopt;
  }
}

MetaData NfsFileSystem::lookUpMetaData(const NfsPath& path) {
  auto cached = m_metaData->find(path);
  statistics::countLookUp(statistics::Cache::Attributes, cached.has_value());
  return cached ? *std::move(cached) : askForMetaData(path);
}

bool NfsFileSystem::isWatched(const NfsPath& directory) const {
  if (m_watchable == nullptr) return true;
  try {
    return m_watchable->Watch(directory);
  } catch (const std::exception& e) {
    log().dbg("The directory [%1] is not watched: [%2]", directory, e.what());
    return false;
  }
}

bool NfsFileSystem::mayKeep(const NfsPath& path, const MetaData& md) const {
  return isWatched(path.getParentPath()) &&
         (!isType(md, FileType::Directory) || path.isRootPath() || isWatched(path));
}

MetaData NfsFileSystem::askForMetaData(const NfsPath& path) {
  const std::uint64_t before = m_metaData->changes();
  if (path.isRootPath()) {
    const bool keeps = isWatched(path);
    MetaData md = openHostDirectory(path)->GetMetaData();
    if (keeps) m_metaData->setUnlessChanged(path, md, before);
    return md;
  }
  const NfsPath parentPath = path.getParentPath();
  const std::string name = path.getFileName();
  const bool keeps = isWatched(parentPath);
  const auto parent = openHostDirectory(parentPath);
  DirEntry entry = parent->GetEntryByName(name);
  if (!keeps) return std::move(entry.metaData);
  if (m_watchable != nullptr && isType(entry.metaData, FileType::Directory)) {
    // What was read before its own entries were watched may have changed since.
    if (!isWatched(path)) return std::move(entry.metaData);
    entry = parent->GetEntryByName(name);
  }
  // A host that does not tell upper from lower case may spell the name in another way. Changes made
  // under the one spelling would not reach what is kept under the other.
  if ((!m_writable && m_watchable == nullptr) || entry.name == name) {
    m_metaData->setUnlessChanged(parentPath / entry.name, entry.metaData, before);
  }
  return std::move(entry.metaData);
}

MetaData NfsFileSystem::readMetaData(const NfsPath& path) {
  m_metaData->erase(path);
  return getMetaData(path);
}

MetaData NfsFileSystem::getMetaData(const NfsPath& path) {
  try {
    return lookUpMetaData(path);
  } catch (const std::exception& e) {
    log().dbg("Failed to find metadata in cache. Error: [%1].", e.what());
    log().warn("Cannot get metadata for path [%1].", path);
    std::throw_with_nested(std::runtime_error("Cannot get metadata for path."));
  }
}

bool NfsFileSystem::pathExists(const NfsPath& path) {
  return path.isRootPath() || findMetaData(path).has_value();
}

nfs::OperationResult NfsFileSystem::statusOfAbsence(const NfsPath& path,
                                                    const std::exception& failure) {
  using nfs::OperationResult;
  const OperationResult status = toldStatus(failure).value_or(OperationResult::HardwareIoError);
  if (status != OperationResult::NoEntry && status != OperationResult::HardwareIoError) {
    return status;
  }
  const NfsPath dir = path.getParentPath();
  getMetaData(dir);
  if (status == OperationResult::NoEntry) return status;
  const bool isThere = openDirectory(dir)->TryGetEntryByName(path.getFileName()).has_value();
  return isThere ? status : OperationResult::NoEntry;
}

void NfsFileSystem::setMetaData(const NfsPath& path, const MetaData& md) {
  if (path.isRootPath()) {
    openDirectory(path)->SetMetaData(md);
  } else {
    const std::string name = path.getFileName();
    const auto parent = openDirectory(path.getParentPath());
    const DirEntry entry = parent->GetEntryByName(name);
    if (isType(entry.metaData, FileType::Directory)) {
      parent->OpenSubdir(name)->SetMetaData(md);
    } else if (isType(entry.metaData, FileType::SymbolicLink)) {
      parent->OpenSymlink(name)->SetMetaData(md);
      if (m_metaData->counts()) m_metaData->counts()->count(entry.metaData.fileId);
    } else {
      parent->OpenFile(name)->SetMetaData(md);
    }
  }
  if (mayKeep(path, md)) {
    m_metaData->set(path, md);
  } else {
    m_metaData->erase(path);
  }
}

NfsFileSystem::ChangeTime NfsFileSystem::changeTimeOf(const MetaData& md) const {
  if (!m_profile.countsChanges) return {md.changeTime, 0};
  const auto& counts = m_metaData->counts();
  const std::uint32_t count = counts ? counts->of(md.fileId) : 0;
  return {std::max(md.modifyTime, md.changeTime), count % kNanosecondsASecond};
}

std::uint64_t NfsFileSystem::changeOf(const MetaData& md) const {
  if (!m_profile.countsChanges) return md.modifyTime;
  const auto& counts = m_metaData->counts();
  const std::uint32_t count = counts ? counts->of(md.fileId) : 0;
  return std::uint64_t{std::max(md.modifyTime, md.changeTime)} << 32U | count;
}

MetaData NfsFileSystem::shownAfterChange(const NfsPath& path, const MetaData& wanted) {
  return m_profile.countsChanges ? readMetaData(path) : wanted;
}

MetaData NfsFileSystem::shownAfterResize(const NfsPath& path, const MetaData& wanted,
                                         std::uint32_t modifiedBefore) {
  if (!m_profile.countsChanges) return wanted;
  MetaData md = readMetaData(path);
  const std::uint32_t now = utility::currentSeconds();
  if (md.modifyTime != modifiedBefore || md.modifyTime == now) return md;
  md.modifyTime = now;
  setMetaData(path, md);
  return readMetaData(path);
}

std::optional<FileSystemStatistics> NfsFileSystem::statistics() const {
  if (m_statistics == nullptr) return std::nullopt;
  try {
    return m_statistics->GetStatistics();
  } catch (const std::exception& e) {
    log().dbg("The host tells no statistics: [%1]", e.what());
    return std::nullopt;
  }
}

std::shared_ptr<Directory> NfsFileSystem::openDirectory(const NfsPath& path) {
  auto dir = openHostDirectory(path);
  if (!m_writable) return dir;
  return std::make_shared<NfsDirCacheTrigger>(path, dir, m_metaData);
}

// The root is asked for each time and kept nowhere; any other directory is opened from its parent
// when that is cached, and by a walk from the root when it is not.
std::shared_ptr<Directory> NfsFileSystem::openHostDirectory(const NfsPath& path) {
  if (path.isRootPath()) return opened(m_fs.OpenRoot());

  std::shared_ptr<Directory> parent;
  std::uint64_t changesBefore = 0;
  {
    const std::lock_guard lock(m_cacheLock);
    const auto cached = m_directories.find(path);
    statistics::countLookUp(statistics::Cache::Directories, cached.has_value());
    if (cached) return *cached;
    parent = m_directories.find(path.getParentPath()).value_or(nullptr);
    changesBefore = m_changes;
  }
  const std::uint64_t metaBefore = m_metaData->changes();
  const bool keeps = isWatched(path);

  std::shared_ptr<Directory> dir = opened(m_fs.OpenRoot());
  if (parent) {
    dir = opened(parent->OpenSubdir(path.getFileName()));
  } else {
    for (const std::string_view node : path.nodes())
      dir = opened(dir->OpenSubdir(std::string(node)));
  }

  if (!keeps) return dir;
  m_metaData->setUnlessChanged(path, dir->GetMetaData(), metaBefore);
  Displaced<Directory> displaced;
  const std::lock_guard lock(m_cacheLock);
  if (m_changes == changesBefore) displaced = m_directories.set(path, dir);
  return dir;
}

std::shared_ptr<File> NfsFileSystem::openFile(const NfsPath& path) {
  std::uint64_t changesBefore = 0;
  {
    const std::lock_guard lock(m_cacheLock);
    auto cached = m_files.find(path);
    statistics::countLookUp(statistics::Cache::Files, cached.has_value());
    if (cached) return *std::move(cached);
    changesBefore = m_changes;
  }
  const NfsPath parentPath = path.getParentPath();
  const bool keeps = isWatched(parentPath);
  auto file = opened(openDirectory(parentPath)->OpenFile(path.getFileName()));
  if (!keeps) return file;
  Displaced<File> displaced;
  const std::lock_guard lock(m_cacheLock);
  if (m_changes == changesBefore) displaced = m_files.set(path, file);
  return file;
}

void NfsFileSystem::closeFile(const NfsPath& path) {
  Displaced<File> closed;
  const std::lock_guard lock(m_cacheLock);
  closed = m_files.erase(path);
}

std::shared_ptr<Symlink> NfsFileSystem::openSymLink(const NfsPath& path) {
  return opened(openDirectory(path.getParentPath())->OpenSymlink(path.getFileName()));
}

DirectoryIterator NfsFileSystem::getDirIterator(const std::shared_ptr<Directory>& dir) {
  return iterate(dir);
}

void NfsFileSystem::iterateDir(
    DirectoryIterator& it, const std::function<bool(const std::string&, const MetaData&)>& visit) {
  for (; it; ++it) {
    if (visit(it->name, it->metaData)) return;
  }
}

bool NfsFileSystem::list(const Listed& listed, std::uint64_t cookie, CookieOrder order,
                         const VisitEntry& visit) {
  return m_profile.remembersListings ? m_listings.list(listed.dir, listed.fileId, cookie, visit)
                                     : listFromPosition(listed, cookie, order, visit);
}

bool NfsFileSystem::listFromPosition(const Listed& listed, std::uint64_t cookie, CookieOrder order,
                                     const VisitEntry& visit) {
  const auto isLeftOut = [&](const std::string& name) {
    return order == CookieOrder::WithoutSelfAndParent && isSelfOrParent(name);
  };
  const auto host = hostObject(listed.dir);
  // A listing from the start makes a fresh pass: it shows what the directory holds now.
  auto stored = cookie == 0
                    ? std::nullopt
                    : m_positions.take(host, listed.isRoot, listed.modifyTime, cookie, order);
  if (cookie != 0) statistics::countLookUp(statistics::Cache::Listings, stored.has_value());
  DirectoryIterator it = stored ? std::move(stored->it) : getDirIterator(listed.dir);
  std::uint64_t skipped = stored ? stored->cookie : 0;
  // The client may name any cookie; there are no more steps than entries.
  for (; skipped != cookie && it; ++it) {
    if (!isLeftOut(it->name)) ++skipped;
  }
  iterateDir(it, [&](const std::string& name, const MetaData& md) {
    if (isLeftOut(name)) return false;
    const bool isFull = visit(name, md, cookie + 1);
    if (!isFull) ++cookie;
    return isFull;
  });
  const bool isComplete = !it;
  if (cookie != 0) {
    m_positions.store({host, listed.isRoot, listed.modifyTime, cookie, std::move(it), order});
  }
  return isComplete;
}

void NfsFileSystem::remove(const std::string& name, const NfsPath& dirPath) {
  requireEntryName(name);
  const auto parent = openDirectory(dirPath);
  const NfsPath child = dirPath / name;
  const bool isDirectory = isType(getMetaData(child), FileType::Directory);
  if (isDirectory) {
    const auto pass = parent->OpenSubdir(name)->Enumerate();
    if (!pass) throw std::runtime_error(message("Cannot enumerate directory [%1]", child));
    for (; pass->IsValid(); pass->MoveNext()) {
      if (!isSelfOrParent(pass->Current().name)) {
        throw std::runtime_error(message("Directory is not empty [%1]", child));
      }
    }
  }
  {
    Displaced<File> file;
    Displaced<Directory> dir;
    Displaced<Directory> listed;
    const std::lock_guard lock(m_cacheLock);
    ++m_changes;
    file = m_files.erase(child);
    dir = m_directories.erase(child);
    listed = m_directories.erase(dirPath);
  }
  m_metaData->erase(child);
  if (isDirectory) {
    parent->RemoveSubdir(name);
  } else {
    parent->RemoveFile(name);
  }
}

void NfsFileSystem::moveEntry(const std::string& name, const NfsPath& dirPath,
                              const std::shared_ptr<Directory>& newParent,
                              const std::string& newName) {
  requireEntryName(name);
  requireEntryName(newName);
  const auto parent = openDirectory(dirPath);
  const NfsPath source = dirPath / name;
  const bool isDirectory = isType(getMetaData(source), FileType::Directory);
  {
    Displaced<File> file;
    Displaced<Directory> dir;
    const std::lock_guard lock(m_cacheLock);
    ++m_changes;
    if (isDirectory) {
      dir = m_directories.erase(source);
    } else {
      file = m_files.erase(source);
    }
  }
  m_metaData->erase(source);
  parent->MoveEntry(name, newParent, newName);
}

void NfsFileSystem::recordRemoval(const NfsPath& path) {
  ++m_placeChanges;
  m_handles.forget(path);
  dropCached(path);
}

void NfsFileSystem::recordMove(const NfsPath& from, const NfsPath& to) {
  ++m_placeChanges;
  dropCached(from);
  dropCached(to);
  const auto moved = findMetaData(to);
  const bool isFile = moved && !isType(*moved, FileType::Directory);
  if (isFile && moved->linkCount > 1) {
    // Renaming a name of a file over another name of the same file leaves both (POSIX rename).
    const auto left = findMetaData(from);
    if (left && left->fileId == moved->fileId) return;
  }
  m_handles.move(from, to);
  // Going through all that is cached takes a while, and only a directory has anything below it.
  if (isFile) return;
  dropCachedTree(from);
  dropCachedTree(to);
}

void recordMove(NfsFileSystem& fromView, const NfsPath& from, NfsFileSystem& toView,
                const NfsPath& to) {
  if (&fromView == &toView) return toView.recordMove(from, to);
  fromView.recordRemoval(from);
  toView.recordRemoval(to);
}

void NfsFileSystem::invalidate(const Invalidation& what) {
  const auto drop = [&](const NfsPath& path) {
    if (what.scope == Invalidation::Scope::Tree) {
      dropCachedTree(path);
    } else {
      dropCached(path);
    }
  };
  m_othersChange = true;
  drop(what.path);
  if (what.movedTo) {
    m_handles.follow(what.fileId, what.path, *what.movedTo);
    drop(*what.movedTo);
  }
  ++m_placeChanges;
  auto& counts = m_metaData->counts();
  if (!counts) return;
  if (what.movedTo) {
    counts->count(what.fileId);
  } else if (what.scope == Invalidation::Scope::Tree) {
    counts->countAll();
  } else {
    for (const std::uint64_t id : m_handles.seenAt(what.path)) counts->count(id);
  }
}

void NfsFileSystem::dropCached(const NfsPath& path) {
  Displaced<Directory> dir;
  Displaced<File> file;
  {
    const std::lock_guard lock(m_cacheLock);
    ++m_changes;
    dir = m_directories.erase(path);
    file = m_files.erase(path);
  }
  m_metaData->erase(path);
}

void NfsFileSystem::dropCachedTree(const NfsPath& top) {
  const auto isBelow = [&](const NfsPath& path) { return path.isAtOrBelow(top); };
  std::vector<std::shared_ptr<Directory>> dirs;
  std::vector<std::shared_ptr<File>> files;
  {
    const std::lock_guard lock(m_cacheLock);
    ++m_changes;
    dirs = m_directories.eraseIf(isBelow);
    files = m_files.eraseIf(isBelow);
  }
  m_metaData->eraseTree(top);
}

}  // namespace nfslib
