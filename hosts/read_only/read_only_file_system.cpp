#include <nfslib/exception.h>
#include <nfslib/hosts/read_only_file_system.h>

#include "read_only/refusing.h"

#include <optional>
#include <string>
#include <utility>

namespace nfslib::hosts {

namespace {

class ReadOnlyFile : public read_only::RefusingFile, public IDescriptorFile {
 public:
  explicit ReadOnlyFile(std::shared_ptr<File> file)
      : m_file(std::move(file)), m_source(dynamic_cast<IDescriptorFile*>(m_file.get())) {}

  unsigned long Read(unsigned long offset, void* buffer, unsigned long length) override {
    return m_file->Read(offset, buffer, length);
  }
  MetaData GetMetaData() const override { return m_file->GetMetaData(); }
  int ReadDescriptor() const noexcept override {
    return m_source != nullptr ? m_source->ReadDescriptor() : -1;
  }
  void DescriptorFailed() noexcept override { m_source->DescriptorFailed(); }

 private:
  const std::shared_ptr<File> m_file;
  IDescriptorFile* const m_source;  // m_file itself, nullptr when it has no descriptor
};

class ReadOnlySymlink : public read_only::RefusingSymlink {
 public:
  explicit ReadOnlySymlink(std::shared_ptr<Symlink> link) : m_link(std::move(link)) {}

  std::string GetTarget() override { return m_link->GetTarget(); }
  MetaData GetMetaData() const override { return m_link->GetMetaData(); }

 private:
  const std::shared_ptr<Symlink> m_link;
};

// `object` behind the class that guards it; nothing when the tree opened nothing.
template <class Guard, class Object>
std::shared_ptr<Guard> guarded(std::shared_ptr<Object> object) {
  return object ? std::make_shared<Guard>(std::move(object)) : nullptr;
}

class ReadOnlyDirectory : public read_only::RefusingDirectory {
 public:
  explicit ReadOnlyDirectory(std::shared_ptr<Directory> dir) : m_dir(std::move(dir)) {}

  std::shared_ptr<DirectoryEnumerator> Enumerate() const override { return m_dir->Enumerate(); }
  std::shared_ptr<Directory> OpenSubdir(const std::string& name) override {
    return guarded<ReadOnlyDirectory>(m_dir->OpenSubdir(name));
  }
  std::shared_ptr<File> OpenFile(const std::string& name) override {
    return guarded<ReadOnlyFile>(m_dir->OpenFile(name));
  }
  std::shared_ptr<Symlink> OpenSymlink(const std::string& name) override {
    return guarded<ReadOnlySymlink>(m_dir->OpenSymlink(name));
  }
  MetaData GetMetaData() const override { return m_dir->GetMetaData(); }
  DirEntry GetEntryByName(const std::string& name) const override {
    return m_dir->GetEntryByName(name);
  }
  std::optional<DirEntry> TryGetEntryByName(const std::string& name) const override {
    return m_dir->TryGetEntryByName(name);
  }

 private:
  const std::shared_ptr<Directory> m_dir;
};

}  // namespace

std::shared_ptr<Directory> ReadOnlyFileSystem::OpenRoot() {
  return guarded<ReadOnlyDirectory>(m_tree->OpenRoot());
}

FileSystemStatistics ReadOnlyFileSystem::GetStatistics() const {
  const auto* source = dynamic_cast<const IStatistics*>(m_tree.get());
  if (source == nullptr) throw INfsException("This tree has no statistics.");
  return source->GetStatistics();
}

bool ReadOnlyFileSystem::Watch(const NfsPath& directory) {
  auto* const source = dynamic_cast<IWatchable*>(m_tree.get());
  return source == nullptr || source->Watch(directory);
}

}  // namespace nfslib::hosts
