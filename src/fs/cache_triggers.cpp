#include "fs/cache_triggers.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>

namespace nfslib {

namespace {

using Paths = std::initializer_list<std::reference_wrapper<const NfsPath>>;

void drop(const std::weak_ptr<MetaDataCache>& cache, Paths paths) {
  const auto alive = cache.lock();
  if (!alive) return;
  for (const NfsPath& path : paths) alive->erase(path);
}

// The objects that a call changes, for the count of changes; asked for before the call, since it
// may take away the names that they are found by. Where changes are not counted, nobody is asked.
class Changed {
 public:
  explicit Changed(const std::weak_ptr<MetaDataCache>& cache) : m_cache(cache.lock()) {
    if (m_cache && !m_cache->counts()) m_cache.reset();
  }
  Changed(const Changed&) = delete;
  Changed& operator=(const Changed&) = delete;
  // Counted also when the call failed: it may have come half-way.
  ~Changed() {
    for (std::size_t i = 0; i < m_size; ++i) m_cache->counts()->count(m_ids[i]);
  }

  template <class Object>
  Changed& object(const Object& object) {
    if (m_cache) add(object.GetMetaData().fileId);
    return *this;
  }
  // `known` keeps the id for the next time: files are written often.
  Changed& file(const File& file, std::atomic<std::uint64_t>& known) {
    if (m_cache && known == 0) known = file.GetMetaData().fileId;
    if (m_cache) add(known);
    return *this;
  }
  // Nothing when there is no such entry.
  Changed& entry(const Directory& dir, const std::string& name) {
    const auto found = m_cache ? dir.TryGetEntryByName(name) : std::nullopt;
    if (found) add(found->metaData.fileId);
    return *this;
  }

 private:
  void add(std::uint64_t id) { m_ids[m_size++] = id; }

  std::shared_ptr<MetaDataCache> m_cache;  // empty: nothing is counted
  std::array<std::uint64_t, 2> m_ids{};    // at most: a directory and an entry
  std::size_t m_size = 0;
};

// The result of `call`, which changes the objects at `paths`.
template <class Call>
auto changing(const std::weak_ptr<MetaDataCache>& cache, Paths paths, const Call& call) {
  struct DropAfterwards {
    const std::weak_ptr<MetaDataCache>& cache;
    Paths paths;
    ~DropAfterwards() { drop(cache, paths); }
  };
  drop(cache, paths);
  const DropAfterwards afterwards{cache, paths};
  return call();
}

}  // namespace

void NfsDirCacheTrigger::clearMetaCache(const NfsPath& path) { drop(m_cache, {path}); }

std::shared_ptr<Directory> NfsDirCacheTrigger::wrap(const std::string& name,
                                                    const std::shared_ptr<Directory>& dir) {
  if (!dir) return nullptr;
  return std::make_shared<NfsDirCacheTrigger>(m_path / name, dir, m_cache.lock());
}

std::shared_ptr<File> NfsDirCacheTrigger::wrap(const std::string& name,
                                               const std::shared_ptr<File>& file) {
  if (!file) return nullptr;
  return std::make_shared<NfsFileCacheTrigger>(m_path / name, file, m_cache.lock());
}

std::shared_ptr<DirectoryEnumerator> NfsDirCacheTrigger::Enumerate() const {
  return m_dir->Enumerate();
}

std::shared_ptr<Directory> NfsDirCacheTrigger::OpenSubdir(const std::string& name) {
  return wrap(name, m_dir->OpenSubdir(name));
}

std::shared_ptr<File> NfsDirCacheTrigger::OpenFile(const std::string& name) {
  return wrap(name, m_dir->OpenFile(name));
}

std::shared_ptr<Symlink> NfsDirCacheTrigger::OpenSymlink(const std::string& name) {
  return m_dir->OpenSymlink(name);
}

MetaData NfsDirCacheTrigger::GetMetaData() const { return m_dir->GetMetaData(); }

void NfsDirCacheTrigger::SetMetaData(const MetaData& md) {
  Changed changed(m_cache);
  changed.object(*m_dir);
  changing(m_cache, {m_path}, [&] { m_dir->SetMetaData(md); });
}

std::shared_ptr<Directory> NfsDirCacheTrigger::CreateSubdir(const std::string& name) {
  Changed changed(m_cache);
  changed.object(*m_dir);
  const NfsPath child = m_path / name;
  return changing(m_cache, {m_path, child}, [&] { return wrap(name, m_dir->CreateSubdir(name)); });
}

std::shared_ptr<File> NfsDirCacheTrigger::CreateFile(const std::string& name) {
  Changed changed(m_cache);
  changed.object(*m_dir);
  const NfsPath child = m_path / name;
  return changing(m_cache, {m_path, child}, [&] { return wrap(name, m_dir->CreateFile(name)); });
}

void NfsDirCacheTrigger::CreateSymlink(const std::string& name, const std::string& target) {
  Changed changed(m_cache);
  changed.object(*m_dir);
  const NfsPath child = m_path / name;
  changing(m_cache, {m_path, child}, [&] { m_dir->CreateSymlink(name, target); });
}

void NfsDirCacheTrigger::RemoveSubdir(const std::string& name) {
  Changed changed(m_cache);
  changed.object(*m_dir).entry(*m_dir, name);
  const NfsPath child = m_path / name;
  changing(m_cache, {m_path, child}, [&] { m_dir->RemoveSubdir(name); });
}

void NfsDirCacheTrigger::RemoveFile(const std::string& name) {
  Changed changed(m_cache);
  changed.object(*m_dir).entry(*m_dir, name);
  const NfsPath child = m_path / name;
  changing(m_cache, {m_path, child}, [&] { m_dir->RemoveFile(name); });
}

void NfsDirCacheTrigger::MoveEntry(const std::string& name,
                                   const std::shared_ptr<Directory>& newParent,
                                   const std::string& newName) {
  const auto* wrapper = dynamic_cast<const NfsDirCacheTrigger*>(newParent.get());
  Changed changed(m_cache);
  changed.object(*m_dir).entry(*m_dir, name);
  Changed changedThere(wrapper != nullptr ? wrapper->m_cache : m_cache);
  changedThere.object(*newParent).entry(*newParent, newName);
  const NfsPath source = m_path / name;
  const auto move = [&] {
    changing(m_cache, {m_path, source},
             [&] { m_dir->MoveEntry(name, hostObject(newParent), newName); });
  };
  if (wrapper == nullptr) return move();
  const NfsPath target = wrapper->m_path / newName;
  changing(wrapper->m_cache, {wrapper->m_path, target}, move);
}

void NfsDirCacheTrigger::Link(const std::string& name, const std::shared_ptr<File>& file) {
  const auto* wrapper = dynamic_cast<const NfsFileCacheTrigger*>(file.get());
  Changed changed(m_cache);
  changed.object(*m_dir);
  Changed changedFile(wrapper != nullptr ? wrapper->m_cache : m_cache);
  changedFile.object(*file);
  const NfsPath child = m_path / name;
  const auto link = [&] {
    changing(m_cache, {m_path, child}, [&] { m_dir->Link(name, hostObject(file)); });
  };
  if (wrapper == nullptr) return link();
  changing(wrapper->m_cache, {wrapper->m_path}, link);
}

DirEntry NfsDirCacheTrigger::GetEntryByName(const std::string& name) const {
  return m_dir->GetEntryByName(name);
}

std::optional<DirEntry> NfsDirCacheTrigger::TryGetEntryByName(const std::string& name) const {
  return m_dir->TryGetEntryByName(name);
}

void NfsFileCacheTrigger::clearMetaCache() { drop(m_cache, {m_path}); }

unsigned long NfsFileCacheTrigger::Read(unsigned long offset, void* buffer, unsigned long length) {
  return m_file->Read(offset, buffer, length);
}

unsigned long NfsFileCacheTrigger::Write(unsigned long offset, const void* data,
                                         unsigned long length) {
  Changed changed(m_cache);
  changed.file(*m_file, m_fileId);
  return changing(m_cache, {m_path}, [&] { return m_file->Write(offset, data, length); });
}

MetaData NfsFileCacheTrigger::GetMetaData() const { return m_file->GetMetaData(); }

void NfsFileCacheTrigger::SetMetaData(const MetaData& md) {
  Changed changed(m_cache);
  changed.file(*m_file, m_fileId);
  changing(m_cache, {m_path}, [&] { m_file->SetMetaData(md); });
}

const std::shared_ptr<Directory>& hostObject(const std::shared_ptr<Directory>& object) {
  const auto* wrapper = dynamic_cast<const NfsDirCacheTrigger*>(object.get());
  return wrapper != nullptr ? wrapper->inner() : object;
}

const std::shared_ptr<File>& hostObject(const std::shared_ptr<File>& object) {
  const auto* wrapper = dynamic_cast<const NfsFileCacheTrigger*>(object.get());
  return wrapper != nullptr ? wrapper->inner() : object;
}

}  // namespace nfslib
