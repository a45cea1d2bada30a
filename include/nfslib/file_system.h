#pragma once

#include <nfslib/export.h>
#include <nfslib/metadata.h>
#include <nfslib/nfs_path.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

/// \file
/// The classes that a host implements to have its tree served.
///
/// The library walks the tree one name at a time from `FileSystem::OpenRoot`. It may keep any
/// object that it was given in a cache for as long as the tree is exported, and it calls objects
/// from several request threads, one object from two threads at once included: implementations must
/// be safe for that. No lock of the library is held during a call.
///
/// Every operation reports failure by throwing: `OutOfSpaceNfsException` for lack of space,
/// `INfsException` (or any other `std::exception`) for the rest. After a throw the tree must be as
/// it was before the call.
///
/// Names are single path components, byte strings in no particular character set.

namespace nfslib {

/// One pass over the entries of a directory, positioned on an entry or past the last one.
/// Used by one thread at a time.
class NFSLIB_EXPORT DirectoryEnumerator {
 public:
  /// The entry under the cursor. Called only while `IsValid`; the reference is used before the next
  /// `MoveNext`.
  virtual const DirEntry& Current() const = 0;
  /// True while the cursor is on an entry.
  virtual bool IsValid() const = 0;
  /// Moves to the next entry; after the last one `IsValid` is false. An entry that vanished since
  /// the pass began is left out, not an error.
  virtual void MoveNext() = 0;
  virtual ~DirectoryEnumerator();
};

/// One regular file (or another object without entries that can be opened).
class NFSLIB_EXPORT File {
 public:
  /// Fills `buffer` with the `length` bytes that start at byte `offset` and returns their number.
  ///
  /// Never asked for bytes past the size that the file's attributes reported. `buffer` arrives
  /// zeroed, belongs to the library and is valid only during the call; bytes that are left alone
  /// reach the client as zeros, whatever is returned.
  virtual unsigned long Read(unsigned long offset, void* buffer, unsigned long length) = 0;
  /// Writes the `length` bytes at `data` to byte `offset`, extending the file as needed (a gap
  /// reads as zeros), and returns their number. The bytes must be kept when it returns; a write
  /// that cannot be done whole throws.
  virtual unsigned long Write(unsigned long offset, const void* data, unsigned long length) = 0;
  /// The file's attributes.
  virtual MetaData GetMetaData() const = 0;
  /// Replaces the attributes that a client may set. `md` is a full record in which only the fields
  /// that are to change differ from the current ones; a different `size` truncates or extends.
  virtual void SetMetaData(const MetaData& md) = 0;
  virtual ~File();
};

/// Optional: a `File` whose bytes lie in a file of the system may derive from this class as well.
/// Large reads are then sent from the descriptor without passing through a buffer, where the
/// transport can.
class NFSLIB_EXPORT IDescriptorFile {
 public:
  /// An open descriptor that yields what `File::Read` would, at the same offsets; -1 when there is
  /// none at the moment. It stays the file's own, open as long as the file lives; its position is
  /// not used.
  virtual int ReadDescriptor() const noexcept = 0;
  /// Bytes could not be had from the descriptor. From now on there is none, and `File::Read` tells
  /// why.
  virtual void DescriptorFailed() noexcept = 0;
  virtual ~IDescriptorFile();
};

/// One symbolic link.
class NFSLIB_EXPORT Symlink {
 public:
  /// The link's text, exactly as stored: the client resolves it, the library never does.
  virtual std::string GetTarget() = 0;
  /// The attributes of the link itself.
  virtual MetaData GetMetaData() const = 0;
  /// Replaces the settable attributes of the link itself, as `File::SetMetaData` does.
  virtual void SetMetaData(const MetaData& md) = 0;
  virtual ~Symlink();
};

/// One directory.
class NFSLIB_EXPORT Directory {
 public:
  /// A fresh pass over the entries, positioned on the first one. An empty pointer says that the
  /// directory cannot be listed. "." and ".." may be among the entries; the library needs neither.
  virtual std::shared_ptr<DirectoryEnumerator> Enumerate() const = 0;
  /// The subdirectory called `name`. Throws when there is none, or when it is something else.
  virtual std::shared_ptr<Directory> OpenSubdir(const std::string& name) = 0;
  /// The file called `name`. Throws when there is none, or when it is something else.
  virtual std::shared_ptr<File> OpenFile(const std::string& name) = 0;
  /// The symbolic link called `name`. Throws when there is none, or when it is something else.
  virtual std::shared_ptr<Symlink> OpenSymlink(const std::string& name) = 0;
  /// This directory's attributes.
  virtual MetaData GetMetaData() const = 0;
  /// Replaces this directory's settable attributes, as `File::SetMetaData` does.
  virtual void SetMetaData(const MetaData& md) = 0;
  /// Creates and returns the subdirectory `name`. A name that is taken is refused with a message
  /// that contains "already exists".
  virtual std::shared_ptr<Directory> CreateSubdir(const std::string& name) = 0;
  /// Creates and returns the empty file `name`. A name that is taken is refused with a message that
  /// contains "already exists".
  virtual std::shared_ptr<File> CreateFile(const std::string& name) = 0;
  /// Creates the symbolic link `name` with the text `target`. A name that is taken is refused with
  /// a message that contains "already exists".
  virtual void CreateSymlink(const std::string& name, const std::string& target) = 0;
  /// Removes the empty subdirectory `name`. One that has entries is refused with a message that
  /// contains "not empty".
  virtual void RemoveSubdir(const std::string& name) = 0;
  /// Removes the entry `name`, which is not a directory. The object stays readable and writable for
  /// whoever holds it open.
  virtual void RemoveFile(const std::string& name) = 0;
  /// Renames `name` to `newName` inside `newParent`, which may be this directory and is always a
  /// directory of the same host. An existing `newName` is replaced under the rules of POSIX rename.
  virtual void MoveEntry(const std::string& name, const std::shared_ptr<Directory>& newParent,
                         const std::string& newName) = 0;
  /// Adds the hard link `name` to `file`, which is a file of the same host. A name that is taken is
  /// refused with a message that contains "already exists".
  virtual void Link(const std::string& name, const std::shared_ptr<File>& file) = 0;
  /// The entry called `name`. Throws when there is none.
  virtual DirEntry GetEntryByName(const std::string& name) const = 0;
  /// The entry called `name`, or nothing when there is none.
  virtual std::optional<DirEntry> TryGetEntryByName(const std::string& name) const = 0;
  virtual ~Directory();
};

/// A whole tree. The host owns it and keeps it alive while it is exported.
class NFSLIB_EXPORT FileSystem {
 public:
  /// The root directory. Called often: return the same object each time if that is cheaper.
  virtual std::shared_ptr<Directory> OpenRoot() = 0;
  virtual ~FileSystem();
};

/// How full a file system is: what FSSTAT (RFC 1813 section 3.3.18) and the attributes space_* and
/// files_* (RFC 7530 section 5.8.2) tell clients. A plain value.
struct FileSystemStatistics {
  std::uint64_t totalBytes = 0;      ///< the capacity
  std::uint64_t freeBytes = 0;       ///< what nothing uses
  std::uint64_t availableBytes = 0;  ///< what of that the clients may use
  std::uint64_t totalFiles = 0;      ///< how many objects there can be
  std::uint64_t freeFiles = 0;       ///< how many of these there are not yet
  std::uint64_t availableFiles = 0;  ///< how many of those the clients may make
};

/// Optional: a `FileSystem` that knows how full it is may derive from this class as well, so that
/// `df` on a client tells the truth.
class NFSLIB_EXPORT IStatistics {
 public:
  /// The numbers of now. Called from any thread, whenever a client asks. Throws INfsException when
  /// they cannot be had; clients are then told none.
  virtual FileSystemStatistics GetStatistics() const = 0;
  virtual ~IStatistics();
};

/// Optional: a `FileSystem` whose tree changes by itself, and not only through the library, may
/// derive from this class as well. The library then keeps attributes and open objects only where
/// the host has promised to tell of changes, by `NfsServer::invalidate`, and asks anew elsewhere. A
/// tree without this class is taken for one that only the library changes, or that tells of every
/// change.
class NFSLIB_EXPORT IWatchable {
 public:
  /// Whether from now on every change of the directory at `directory` and of its entries will be
  /// told, and every change of the way to it. Asked before anything is read that might be kept, so
  /// this is the time to begin watching. When the promise cannot be kept any longer, tell of the
  /// whole place as changed, and answer no from just before that on.
  ///
  /// Called from any thread and from several at once, for nearly every object that is not in a
  /// cache: it has to be quick. A throw counts as no.
  virtual bool Watch(const NfsPath& directory) = 0;
  virtual ~IWatchable();
};

/// Who makes a call, as its credential says: AUTH_SYS of RFC 5531, appendix A. Nobody has proved
/// it.
struct Caller {
  std::uint32_t uid = 0;  ///< the user's number; 0 is root
  std::uint32_t gid = 0;  ///< the number of the user's group
  /// The supplementary groups, sixteen at most. Valid as long as the call to which this was given.
  std::span<const std::uint32_t> groups{};
};

/// Optional: a `FileSystem` that knows by itself who may do what may derive from this class as
/// well. In the modern profile it is then asked in place of owner, group and mode, about root too,
/// both when a client inquires (ACCESS, RFC 1813 section 3.3.4 and RFC 7530 section 16.1) and when
/// a call is to be let or refused. The two agree as long as it answers alike.
///
/// Not asked: to find an object by its handle, and to read attributes or the target of a symbolic
/// link. What a client of version 4 has open it may go on using, whatever the answer is by then.
/// Who may be named as the owner of what is made stays as it is without this class: its maker, and
/// a group of the maker's.
class NFSLIB_EXPORT IAccessControl {
 public:
  /// What a caller may be allowed; bits, to be put together.
  enum Right : std::uint32_t {
    read = 0x01,   ///< to read a file or list a directory
    write = 0x02,  ///< to write or resize a file; to make, remove and rename entries of a directory
    /// To run a file, which a client has to read for that; to look up the names of a directory.
    execute = 0x04,
    /// To take this entry out of its directory, or to replace it, for one who may write there: what
    /// the sticky bit of a directory is about.
    remove = 0x08,
    changeAttributes = 0x10,  ///< to set mode and times
    changeOwner = 0x20,       ///< to give it to another owner or group
  };

  /// Those of the rights `requested`, one or more, that `caller` has to the object at `path` of
  /// this tree, whose attributes are `md`. Bits that were not requested do not count. A call that
  /// needs several rights asks for them one after the other or together.
  ///
  /// The attributes may have been kept for a while. Nothing here is kept: the answer counts for
  /// this time only. Called from any thread and from several at once, like every operation of a
  /// host, and for nearly every call of a client: it has to be quick. Throws when it cannot tell;
  /// then nothing is granted, and the reason goes to the log.
  virtual std::uint32_t GetGrantedRights(const Caller& caller, const NfsPath& path,
                                         const MetaData& md, std::uint32_t requested) const = 0;
  virtual ~IAccessControl();
};

}  // namespace nfslib
