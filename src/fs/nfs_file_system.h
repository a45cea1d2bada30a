#pragma once

#include <nfslib/directory_iterator.h>
#include <nfslib/file_system.h>
#include <nfslib/invalidation.h>
#include <nfslib/metadata.h>
#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>

#include "common/nfs_handle.h"
#include "common/profile.h"
#include "common/status.h"
#include "fs/directory_listings.h"
#include "fs/directory_positions.h"
#include "fs/handle_map.h"
#include "fs/metadata_cache.h"
#include "fs/replacement_cache.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace nfslib {

// The NFS side of one exported tree: turns paths into host objects, file handles back into paths,
// and keeps open directories, open files and attributes in bounded caches. A writable view hands
// out wrapped directories and files, which drop the attributes of what they change.
//
// Thread-safe. Locks, in their order (a thread that holds one takes only later ones, and no host
// call is made under any of them, since a host may be as slow as its disk):
//   1. m_cacheLock   the directory and open-file caches
//   2. the locks inside m_handles, m_metaData, m_positions and m_listings, no two at once
// A request that began to ask the host before another one changed the tree does not store its
// answer: see `m_changes` and MetaDataCache. One that asks in the midst of a change could, so
// requests on a writable export run one by one.
class NfsFileSystem {
 public:
  NfsFileSystem(FileSystem& fs, const NfsMountSpec& spec, const Profile& profile = {});
  ~NfsFileSystem();
  NfsFileSystem(const NfsFileSystem&) = delete;
  NfsFileSystem& operator=(const NfsFileSystem&) = delete;

  // ---- Handles

  // `base` with the object id of `md`.
  static NfsHandle createHandle(const NfsHandle& base, const MetaData& md);
  // The same, and remembers that it names `path`.
  NfsHandle getHandle(const NfsHandle& base, const NfsPath& path, const MetaData& md);
  // The path last seen for the handle's object, found by the low 32 bits of its id. Where others
  // change the tree as well, the host, or what is kept, has to know that object there.
  std::optional<NfsPath> findPath(const NfsHandle& handle);
  // The same; a handle that was never given out throws std::runtime_error.
  NfsPath getPath(const NfsHandle& handle);

  // ---- Attributes

  // Nothing when the object cannot be reached, for whatever reason the host gives.
  std::optional<MetaData> findMetaData(const NfsPath& path);
  // The same; what the host throws passes out.
  MetaData lookUpMetaData(const NfsPath& path);
  // The same; throws std::runtime_error when there is nothing, and in it what the host threw.
  MetaData getMetaData(const NfsPath& path);
  // The same, from the host in any case: what a client's changes are applied to, since the host
  // takes whatever differs from its own attributes for a change.
  MetaData readMetaData(const NfsPath& path);
  bool pathExists(const NfsPath& path);
  // What to tell of an entry whose attributes could not be had because of `failure`. Whether its
  // directory is still there decides first, and throws if not; then a host that gives no cause is
  // asked whether there is such an entry.
  nfs::OperationResult statusOfAbsence(const NfsPath& path, const std::exception& failure);
  // Sets what differs, and keeps `md` as the attributes of `path` until somebody asks for those
  // that the host has now.
  void setMetaData(const NfsPath& path, const MetaData& md);
  void dropMetaData(const NfsPath& path) { m_metaData->erase(path); }

  // ---- Changes, as clients are told of them. Only the profile decides how; a caller gives the
  // attributes that it shows.

  struct ChangeTime {
    std::uint32_t seconds = 0;
    std::uint32_t nanoseconds = 0;
  };
  // ctime of version 3, which its clients go by to see whether what they keep is still right. Where
  // changes are counted, the nanoseconds are the count.
  ChangeTime changeTimeOf(const MetaData& md) const;
  // The change attribute of version 4. Where changes are counted, the count is its lower half.
  std::uint64_t changeOf(const MetaData& md) const;
  // What a reply tells of an object that a call has just given the attributes `wanted`: those, or
  // in a profile whose replies have to agree with each other what the host has.
  MetaData shownAfterChange(const NfsPath& path, const MetaData& wanted);
  // The same for a file whose size was set, and that was modified at `modifiedBefore` last. There
  // the modification time moves even when it is the old size, which hosts do not take for a change.
  MetaData shownAfterResize(const NfsPath& path, const MetaData& wanted,
                            std::uint32_t modifiedBefore);

  // Nothing when the host has none, or clients are not to be told.
  std::optional<FileSystemStatistics> statistics() const;

  // Who decides what callers may do; nullptr when owner, group and mode do.
  const IAccessControl* accessControl() const { return m_accessControl; }

  const Profile& profile() const { return m_profile; }

  // ---- Opening. The host's exceptions pass out unchanged, and nothing is cached then.

  std::shared_ptr<Directory> openDirectory(const NfsPath& path);
  std::shared_ptr<File> openFile(const NfsPath& path);
  // Drops the file from the cache; it closes when its last holder lets go.
  void closeFile(const NfsPath& path);
  std::shared_ptr<Symlink> openSymLink(const NfsPath& path);

  // ---- Listing

  DirectoryIterator getDirIterator(const std::shared_ptr<Directory>& dir);
  // Calls `visit` for each entry from where `it` stands. True stops the walk and leaves the pass on
  // that entry; at the end `it` is the end position.
  void iterateDir(DirectoryIterator& it,
                  const std::function<bool(const std::string&, const MetaData&)>& visit);
  // Where listings of this export stopped.
  DirectoryPositions& positions() { return m_positions; }

  // The directory that is listed. `dir` is the object to ask.
  struct Listed {
    std::shared_ptr<Directory> dir;
    bool isRoot = false;
    std::uint64_t fileId = 0;
    std::uint32_t modifyTime = 0;
  };
  // One entry of a listing, and its cookie. True: it does not fit the page.
  using VisitEntry = std::function<bool(const std::string&, const MetaData&, std::uint64_t)>;
  // Goes on behind the entry with the cookie, 0 for the start, until `visit` says that the page is
  // full. Returns whether the listing is complete. How cookies are numbered is known here alone;
  // `order` counts where the profile's listings are those of the host.
  bool list(const Listed& listed, std::uint64_t cookie, CookieOrder order, const VisitEntry& visit);

  // ---- Changing the tree

  // Both refuse a name that cannot name an entry, with std::runtime_error. They leave the handles,
  // and what is cached at other places, to the two operations below.

  // Removes an entry of any type; a directory has to be empty.
  void remove(const std::string& name, const NfsPath& dirPath);
  // Renames the entry, over an existing one if the host agrees.
  void moveEntry(const std::string& name, const NfsPath& dirPath,
                 const std::shared_ptr<Directory>& newParent, const std::string& newName);

  // To be called when the entry at `path` was removed or moved out of this view: its object is not
  // known by this name any more, and a later object of that name is another one.
  void recordRemoval(const NfsPath& path);
  // To be called when the entry at `from` was moved to `to`: handles of the object and of
  // everything below it lead to the new place, those of an object that it replaced lead nowhere.
  void recordMove(const NfsPath& from, const NfsPath& to);
  // How often a place changed, by one of the two or below: as long as this stays, so does every
  // path.
  std::uint64_t placeChanges() const { return m_placeChanges; }

  // ---- Changes without the library

  bool shows(const FileSystem& fs) const { return &m_fs == &fs; }
  // Drops what is kept of the place, and counts a change of the objects that clients may know
  // there. No host call is made.
  void invalidate(const Invalidation& what);

 private:
  // Whether the host will tell of every change of the directory and its entries; asked before what
  // might be kept is read.
  bool isWatched(const NfsPath& directory) const;
  bool mayKeep(const NfsPath& path, const MetaData& md) const;
  // Whether the handle's object may be at `path`: it is, or the host cannot tell.
  bool mayLeadTo(const NfsPath& path, const NfsHandle& handle);
  std::shared_ptr<Directory> openHostDirectory(const NfsPath& path);
  MetaData askForMetaData(const NfsPath& path);
  // Drops all that is cached for `path`, or for it and everything below.
  void dropCached(const NfsPath& path);
  void dropCachedTree(const NfsPath& path);

  bool listFromPosition(const Listed& listed, std::uint64_t cookie, CookieOrder order,
                        const VisitEntry& visit);

  FileSystem& m_fs;
  const IStatistics* const m_statistics;  // m_fs itself; nullptr when there are none to be told
  const IAccessControl* const m_accessControl;  // the same, when there is nobody to be asked
  IWatchable* const m_watchable;     // the same, when nobody but the library changes the tree
  std::atomic<bool> m_othersChange;  // or have done so once
  const Profile m_profile;
  const bool m_writable;

  mutable std::mutex m_cacheLock;
  std::uint64_t m_changes = 0;
  utility::replacement_cache<NfsPath, std::shared_ptr<Directory>> m_directories;
  utility::replacement_cache<NfsPath, std::shared_ptr<File>> m_files;

  HandleMap m_handles;
  std::atomic<std::uint64_t> m_placeChanges = 0;
  const std::shared_ptr<MetaDataCache> m_metaData;  // shared with the wrappers
  DirectoryPositions m_positions;
  DirectoryListings m_listings;  // in use instead of the positions where listings are remembered
};

// The same for a move that may have gone from one export of a tree to another.
void recordMove(NfsFileSystem& fromView, const NfsPath& from, NfsFileSystem& toView,
                const NfsPath& to);

}  // namespace nfslib
