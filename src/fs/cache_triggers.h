#pragma once

#include <nfslib/file_system.h>
#include <nfslib/nfs_path.h>

#include "fs/metadata_cache.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace nfslib {

// A directory of a writable export. Every call that changes it drops its attributes, and those of
// the entry that is changed, from the view's metadata cache: before, so that they are gone also
// when the host fails half-way, and after, so that nothing read meanwhile stays. Directories and
// files opened through it come wrapped in the same way.
//
// Where the cache counts changes, each call counts for the objects that it changes.
//
// It keeps the host's directory alive, but not the cache: a wrapper that outlives its view goes on
// forwarding and drops nothing. The host always sees objects of its own as arguments, never a
// wrapper.
class NfsDirCacheTrigger : public Directory {
 public:
  NfsDirCacheTrigger(const NfsPath& path, const std::shared_ptr<Directory>& dir,
                     const std::shared_ptr<MetaDataCache>& cache)
      : m_path(path), m_dir(dir), m_cache(cache) {}

  std::shared_ptr<DirectoryEnumerator> Enumerate() const override;
  std::shared_ptr<Directory> OpenSubdir(const std::string& name) override;
  std::shared_ptr<File> OpenFile(const std::string& name) override;
  std::shared_ptr<Symlink> OpenSymlink(const std::string& name) override;
  MetaData GetMetaData() const override;
  void SetMetaData(const MetaData& md) override;
  std::shared_ptr<Directory> CreateSubdir(const std::string& name) override;
  std::shared_ptr<File> CreateFile(const std::string& name) override;
  void CreateSymlink(const std::string& name, const std::string& target) override;
  void RemoveSubdir(const std::string& name) override;
  void RemoveFile(const std::string& name) override;
  void MoveEntry(const std::string& name, const std::shared_ptr<Directory>& newParent,
                 const std::string& newName) override;
  void Link(const std::string& name, const std::shared_ptr<File>& file) override;
  DirEntry GetEntryByName(const std::string& name) const override;
  std::optional<DirEntry> TryGetEntryByName(const std::string& name) const override;

  // Drops the attributes of `path`, and only those, while the cache is still there.
  void clearMetaCache(const NfsPath& path);
  const std::shared_ptr<Directory>& inner() const { return m_dir; }

 private:
  std::shared_ptr<Directory> wrap(const std::string& name, const std::shared_ptr<Directory>& dir);
  std::shared_ptr<File> wrap(const std::string& name, const std::shared_ptr<File>& file);

  NfsPath m_path;
  std::shared_ptr<Directory> m_dir;
  std::weak_ptr<MetaDataCache> m_cache;
};

// The same for a file.
class NfsFileCacheTrigger : public File {
 public:
  NfsFileCacheTrigger(const NfsPath& path, const std::shared_ptr<File>& file,
                      const std::shared_ptr<MetaDataCache>& cache)
      : m_path(path), m_file(file), m_cache(cache) {}

  unsigned long Read(unsigned long offset, void* buffer, unsigned long length) override;
  unsigned long Write(unsigned long offset, const void* data, unsigned long length) override;
  MetaData GetMetaData() const override;
  void SetMetaData(const MetaData& md) override;

  void clearMetaCache();
  const std::shared_ptr<File>& inner() const { return m_file; }

 private:
  friend class NfsDirCacheTrigger;

  NfsPath m_path;
  std::shared_ptr<File> m_file;
  std::weak_ptr<MetaDataCache> m_cache;
  std::atomic<std::uint64_t> m_fileId = 0;  // 0 until it is needed
};

// The host's own object behind `object`, which is `object` itself when it is not a wrapper.
const std::shared_ptr<Directory>& hostObject(const std::shared_ptr<Directory>& object);
const std::shared_ptr<File>& hostObject(const std::shared_ptr<File>& object);

}  // namespace nfslib
