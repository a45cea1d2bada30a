#pragma once

#include <nfslib/file_system.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace nfslib::testing {

// Stands before another host and sees every call on its way: counts it, and lets a test throw.
class ObservedHost : public FileSystem {
 public:
  explicit ObservedHost(FileSystem& inner) : m_inner(inner) {}

  // Called first in every call with the operation's name, such as "Read"; may throw or wait. To be
  // set while nobody uses the host.
  std::function<void(std::string_view operation)> onCall;
  // File::Read says that it has done its work and leaves the buffer alone.
  bool readsNothing = false;

  // The calls of that operation since the last time.
  unsigned long takeCalls(const std::string& operation) {
    const std::lock_guard lock(m_lock);
    return std::exchange(m_calls[operation], 0);
  }

  std::shared_ptr<Directory> OpenRoot() override {
    called("OpenRoot");
    return wrap<Dir>(m_inner.OpenRoot());
  }

 private:
  // An object of the inner host, and the calls that every kind of object has.
  template <class Interface>
  class Observed : public Interface {
   public:
    Observed(ObservedHost& host, std::shared_ptr<Interface> object)
        : inner(std::move(object)), m_host(host) {}
    MetaData GetMetaData() const override { return in("GetMetaData")->GetMetaData(); }
    void SetMetaData(const MetaData& md) override { in("SetMetaData")->SetMetaData(md); }

    const std::shared_ptr<Interface> inner;

   protected:
    // The inner object, to be called for `operation`.
    const std::shared_ptr<Interface>& in(const char* operation) const {
      m_host.called(operation);
      return inner;
    }
    ObservedHost& m_host;
  };

  class Pass : public DirectoryEnumerator {
   public:
    Pass(ObservedHost& host, std::shared_ptr<DirectoryEnumerator> inner)
        : m_host(host), m_inner(std::move(inner)) {}
    const DirEntry& Current() const override { return m_inner->Current(); }
    bool IsValid() const override { return m_inner->IsValid(); }
    void MoveNext() override {
      m_host.called("MoveNext");
      m_inner->MoveNext();
    }

   private:
    ObservedHost& m_host;
    std::shared_ptr<DirectoryEnumerator> m_inner;
  };

  class Plain : public Observed<File> {
   public:
    using Observed::Observed;
    unsigned long Read(unsigned long offset, void* buffer, unsigned long length) override {
      const auto& file = in("Read");
      return m_host.readsNothing ? length : file->Read(offset, buffer, length);
    }
    unsigned long Write(unsigned long offset, const void* data, unsigned long length) override {
      return in("Write")->Write(offset, data, length);
    }
  };

  class Link : public Observed<Symlink> {
   public:
    using Observed::Observed;
    std::string GetTarget() override { return in("GetTarget")->GetTarget(); }
  };

  class Dir : public Observed<Directory> {
   public:
    using Observed::Observed;
    std::shared_ptr<DirectoryEnumerator> Enumerate() const override {
      return m_host.wrap<Pass>(in("Enumerate")->Enumerate());
    }
    std::shared_ptr<Directory> OpenSubdir(const std::string& name) override {
      return m_host.wrap<Dir>(in("OpenSubdir")->OpenSubdir(name));
    }
    std::shared_ptr<File> OpenFile(const std::string& name) override {
      return m_host.wrap<Plain>(in("OpenFile")->OpenFile(name));
    }
    std::shared_ptr<Symlink> OpenSymlink(const std::string& name) override {
      return m_host.wrap<ObservedHost::Link>(in("OpenSymlink")->OpenSymlink(name));
    }
    std::shared_ptr<Directory> CreateSubdir(const std::string& name) override {
      return m_host.wrap<Dir>(in("CreateSubdir")->CreateSubdir(name));
    }
    std::shared_ptr<File> CreateFile(const std::string& name) override {
      return m_host.wrap<Plain>(in("CreateFile")->CreateFile(name));
    }
    void CreateSymlink(const std::string& name, const std::string& target) override {
      in("CreateSymlink")->CreateSymlink(name, target);
    }
    void RemoveSubdir(const std::string& name) override { in("RemoveSubdir")->RemoveSubdir(name); }
    void RemoveFile(const std::string& name) override { in("RemoveFile")->RemoveFile(name); }
    void MoveEntry(const std::string& name, const std::shared_ptr<Directory>& newParent,
                   const std::string& newName) override {
      in("MoveEntry")->MoveEntry(name, dynamic_cast<const Dir&>(*newParent).inner, newName);
    }
    void Link(const std::string& name, const std::shared_ptr<File>& file) override {
      in("Link")->Link(name, dynamic_cast<const Plain&>(*file).inner);
    }
    DirEntry GetEntryByName(const std::string& name) const override {
      return in("GetEntryByName")->GetEntryByName(name);
    }
    std::optional<DirEntry> TryGetEntryByName(const std::string& name) const override {
      return in("TryGetEntryByName")->TryGetEntryByName(name);
    }
  };

  template <class Wrapper, class Interface>
  std::shared_ptr<Wrapper> wrap(std::shared_ptr<Interface> object) {
    return std::make_shared<Wrapper>(*this, std::move(object));
  }
  void called(const char* operation) {
    {
      const std::lock_guard lock(m_lock);
      ++m_calls[operation];
    }
    if (onCall) onCall(operation);
  }

  FileSystem& m_inner;
  std::mutex m_lock;  // guards m_calls
  std::map<std::string, unsigned long> m_calls;
};

}  // namespace nfslib::testing
