#pragma once

#include <nfslib/exception.h>
#include <nfslib/file_system.h>

#include <utility>
#include <vector>

// What a host that only reads can start from: it refuses every change by itself.
namespace read_only {

[[noreturn]] inline void refuse() { throw nfslib::SystemNfsException(EROFS, "It is read-only."); }
[[noreturn]] inline void none(const std::string& name) {
  throw nfslib::SystemNfsException(ENOENT, "There is no entry [" + name + "].");
}

struct File : nfslib::File {
  unsigned long Write(unsigned long, const void*, unsigned long) override { refuse(); }
  void SetMetaData(const nfslib::MetaData&) override { refuse(); }
};

struct Enumerator : nfslib::DirectoryEnumerator {
  explicit Enumerator(std::vector<nfslib::DirEntry> list) : entries(std::move(list)) {}
  const nfslib::DirEntry& Current() const override { return entries[next]; }
  bool IsValid() const override { return next < entries.size(); }
  void MoveNext() override { ++next; }
  const std::vector<nfslib::DirEntry> entries;
  std::size_t next = 0;
};

// Left to the derived class: Enumerate, GetMetaData, TryGetEntryByName, Open... of what it has.
struct Directory : nfslib::Directory {
  using Name = const std::string&;
  std::shared_ptr<nfslib::Directory> OpenSubdir(Name name) override { none(name); }
  std::shared_ptr<nfslib::File> OpenFile(Name name) override { none(name); }
  std::shared_ptr<nfslib::Symlink> OpenSymlink(Name name) override { none(name); }
  nfslib::DirEntry GetEntryByName(Name name) const override {
    if (auto entry = TryGetEntryByName(name)) return *entry;
    none(name);
  }
  void SetMetaData(const nfslib::MetaData&) override { refuse(); }
  std::shared_ptr<nfslib::Directory> CreateSubdir(Name) override { refuse(); }
  std::shared_ptr<nfslib::File> CreateFile(Name) override { refuse(); }
  void CreateSymlink(Name, Name) override { refuse(); }
  void RemoveSubdir(Name) override { refuse(); }
  void RemoveFile(Name) override { refuse(); }
  void MoveEntry(Name, const std::shared_ptr<nfslib::Directory>&, Name) override { refuse(); }
  void Link(Name, const std::shared_ptr<nfslib::File>&) override { refuse(); }
};

}  // namespace read_only
