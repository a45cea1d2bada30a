#pragma once

#include <nfslib/exception.h>
#include <nfslib/file_system.h>
#include <nfslib/nfs_path.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace nfslib::testing {

// A host tree of attributes without contents, which writes down every call that it gets:
// "OpenRoot", "OpenSubdir /a/b", "MoveEntry /a/x /b/y", and "closed /a/f" when a file object goes.
class CountingTree : public FileSystem {
 public:
  // Called first in every operation with its line, on the caller's thread; may throw or wait. To be
  // set while nobody uses the tree.
  std::function<void(const std::string&)> onCall;
  // Directories give no pass.
  bool listable = true;

  explicit CountingTree(std::initializer_list<const char*> dirs = {},
                        std::initializer_list<const char*> files = {}) {
    add("/", FileType::Directory);
    for (const char* path : dirs) add(path, FileType::Directory);
    for (const char* path : files) add(path, FileType::Regular);
  }

  // Adds an object, numbered in the order of adding, from 1 for the root.
  void add(const std::string& path, FileType type) {
    const std::lock_guard lock(m_lock);
    MetaData md;
    md.type = static_cast<std::uint32_t>(type);
    md.fileId = ++m_lastId;
    md.mode = 0755;
    m_objects[path] = md;
  }
  void change(const std::string& path, const std::function<void(MetaData&)>& edit) {
    const std::lock_guard lock(m_lock);
    edit(m_objects.at(path));
  }
  bool has(const std::string& path) const {
    const std::lock_guard lock(m_lock);
    return m_objects.contains(path);
  }

  // The calls since the last time.
  std::vector<std::string> takeCalls() {
    const std::lock_guard lock(m_lock);
    return std::exchange(m_calls, {});
  }

  std::shared_ptr<Directory> OpenRoot() override {
    called("OpenRoot");
    return std::make_shared<Dir>(*this, NfsPath("/"));
  }

 private:
  // What every object has: its place and its attributes.
  struct Object {
    Object(CountingTree& owner, NfsPath place) : tree(owner), path(std::move(place)) {}
    MetaData attributes() const {
      tree.called("GetMetaData " + path.str());
      return tree.find(path);
    }
    void setAttributes(const MetaData& md) const {
      tree.called("SetMetaData " + path.str());
      tree.change(path.str(), [&](MetaData& own) { own = md; });
    }
    CountingTree& tree;
    NfsPath path;
  };

  class Pass : public DirectoryEnumerator {
   public:
    explicit Pass(std::vector<DirEntry> entries) : m_entries(std::move(entries)) {}
    const DirEntry& Current() const override { return m_entries.at(m_at); }
    bool IsValid() const override { return m_at < m_entries.size(); }
    void MoveNext() override { ++m_at; }

   private:
    std::vector<DirEntry> m_entries;
    std::size_t m_at = 0;
  };

  class Node : public File, public Symlink, public Object {
   public:
    using Object::Object;
    ~Node() override { tree.called("closed " + path.str()); }
    std::string GetTarget() override { return "target of " + path.str(); }
    unsigned long Read(unsigned long, void*, unsigned long length) override {
      tree.called("Read " + path.str());
      return length;
    }
    unsigned long Write(unsigned long offset, const void*, unsigned long length) override {
      tree.called("Write " + path.str());
      tree.change(path.str(), [&](MetaData& md) { md.size = offset + length; });
      return length;
    }
    MetaData GetMetaData() const override { return attributes(); }
    void SetMetaData(const MetaData& md) override { setAttributes(md); }
  };

  class Dir : public Directory, public Object {
   public:
    using Object::Object;
    std::shared_ptr<DirectoryEnumerator> Enumerate() const override {
      tree.called("Enumerate " + path.str());
      return tree.listable ? std::make_shared<Pass>(tree.entriesOf(path)) : nullptr;
    }
    std::shared_ptr<Directory> OpenSubdir(const std::string& name) override {
      return open<Dir>("OpenSubdir ", name);
    }
    std::shared_ptr<File> OpenFile(const std::string& name) override {
      return open<Node>("OpenFile ", name);
    }
    std::shared_ptr<Symlink> OpenSymlink(const std::string& name) override {
      return open<Node>("OpenSymlink ", name);
    }
    MetaData GetMetaData() const override { return attributes(); }
    void SetMetaData(const MetaData& md) override { setAttributes(md); }
    std::shared_ptr<Directory> CreateSubdir(const std::string& name) override {
      return create<Dir>("CreateSubdir ", name, FileType::Directory);
    }
    std::shared_ptr<File> CreateFile(const std::string& name) override {
      return create<Node>("CreateFile ", name, FileType::Regular);
    }
    void CreateSymlink(const std::string& name, const std::string&) override {
      create<Node>("CreateSymlink ", name, FileType::SymbolicLink);
    }
    void RemoveSubdir(const std::string& name) override { remove("RemoveSubdir ", name); }
    void RemoveFile(const std::string& name) override { remove("RemoveFile ", name); }
    void MoveEntry(const std::string& name, const std::shared_ptr<Directory>& newParent,
                   const std::string& newName) override {
      const auto& target = own<Dir>(newParent);
      tree.called("MoveEntry " + (path / name).str() + " " + (target.path / newName).str());
      const std::lock_guard lock(tree.m_lock);
      auto object = tree.m_objects.extract((path / name).str());
      object.key() = (target.path / newName).str();
      tree.m_objects.erase(object.key());
      tree.m_objects.insert(std::move(object));
    }
    void Link(const std::string& name, const std::shared_ptr<File>& file) override {
      const auto& source = own<Node>(file);
      tree.called("Link " + (path / name).str() + " " + source.path.str());
    }
    DirEntry GetEntryByName(const std::string& name) const override {
      tree.called("GetEntryByName " + (path / name).str());
      return {name, tree.find(path / name)};
    }
    std::optional<DirEntry> TryGetEntryByName(const std::string& name) const override {
      tree.called("TryGetEntryByName " + (path / name).str());
      if (!tree.has((path / name).str())) return std::nullopt;
      return DirEntry{name, tree.find(path / name)};
    }

   private:
    // The host's own object: being handed anything else is a fault of the library.
    template <class Own, class Interface>
    static const Object& own(const std::shared_ptr<Interface>& object) {
      return dynamic_cast<const Own&>(*object);
    }
    template <class Type>
    std::shared_ptr<Type> open(const char* call, const std::string& name) {
      tree.called(call + (path / name).str());
      tree.find(path / name);
      return std::make_shared<Type>(tree, path / name);
    }
    template <class Type>
    std::shared_ptr<Type> create(const char* call, const std::string& name, FileType type) {
      tree.called(call + (path / name).str());
      tree.add((path / name).str(), type);
      return std::make_shared<Type>(tree, path / name);
    }
    void remove(const char* call, const std::string& name) {
      tree.called(call + (path / name).str());
      tree.find(path / name);
      const std::lock_guard lock(tree.m_lock);
      tree.m_objects.erase((path / name).str());
    }
  };

  void called(const std::string& call) {
    {
      const std::lock_guard lock(m_lock);
      m_calls.push_back(call);
    }
    if (const auto hook = onCall) hook(call);  // a copy: it may put another in its place
  }
  MetaData find(const NfsPath& path) const {
    const std::lock_guard lock(m_lock);
    const auto at = m_objects.find(path.str());
    if (at == m_objects.end()) throw INfsException("There is no " + path.str());
    return at->second;
  }
  std::vector<DirEntry> entriesOf(const NfsPath& dir) const {
    const std::lock_guard lock(m_lock);
    std::vector<DirEntry> entries{{".", {}}, {"..", {}}};
    for (const auto& [text, md] : m_objects) {
      const NfsPath path(text);
      if (!path.isRootPath() && path.getParentPath() == dir)
        entries.push_back({path.getFileName(), md});
    }
    return entries;
  }

  mutable std::mutex m_lock;  // guards the fields below
  std::map<std::string, MetaData> m_objects;
  std::vector<std::string> m_calls;
  std::uint64_t m_lastId = 0;
};

}  // namespace nfslib::testing
