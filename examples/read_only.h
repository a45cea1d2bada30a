#pragma once

#include <nfslib/exception.h>
#include <nfslib/file_system.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// What a host that only reads can start from: every change is refused, a directory answers from its
// list of entries. An export without NfsMountSpec::writeEnabled grants clients no rights to change
// anything, but only the host can refuse the one that tries.

namespace read_only {

[[noreturn]] inline void refuse() { throw nfslib::INfsException("this tree is read-only"); }

class File : public nfslib::File {
 public:
  unsigned long Write(unsigned long, const void*, unsigned long) override { refuse(); }
  void SetMetaData(const nfslib::MetaData&) override { refuse(); }
};

// A pass over a list of entries.
class Enumerator : public nfslib::DirectoryEnumerator {
 public:
  explicit Enumerator(std::vector<nfslib::DirEntry> entries) : m_entries(std::move(entries)) {}
  const nfslib::DirEntry& Current() const override { return m_entries[m_next]; }
  bool IsValid() const override { return m_next < m_entries.size(); }
  void MoveNext() override { ++m_next; }

 private:
  std::vector<nfslib::DirEntry> m_entries;
  std::size_t m_next = 0;
};

// Left to the derived class: Enumerate, GetMetaData, and the Open... of what it has.
class Directory : public nfslib::Directory {
 public:
  std::shared_ptr<nfslib::Directory> OpenSubdir(const std::string& name) override { none(name); }
  std::shared_ptr<nfslib::File> OpenFile(const std::string& name) override { none(name); }
  std::shared_ptr<nfslib::Symlink> OpenSymlink(const std::string& name) override { none(name); }
  std::optional<nfslib::DirEntry> TryGetEntryByName(const std::string& name) const override {
    for (const auto pass = Enumerate(); pass->IsValid(); pass->MoveNext()) {
      if (pass->Current().name == name) return pass->Current();
    }
    return std::nullopt;
  }
  nfslib::DirEntry GetEntryByName(const std::string& name) const override {
    if (auto entry = TryGetEntryByName(name)) return *entry;
    none(name);
  }

  void SetMetaData(const nfslib::MetaData&) override { refuse(); }
  std::shared_ptr<nfslib::Directory> CreateSubdir(const std::string&) override { refuse(); }
  std::shared_ptr<nfslib::File> CreateFile(const std::string&) override { refuse(); }
  void CreateSymlink(const std::string&, const std::string&) override { refuse(); }
  void RemoveSubdir(const std::string&) override { refuse(); }
  void RemoveFile(const std::string&) override { refuse(); }
  void MoveEntry(const std::string&, const std::shared_ptr<nfslib::Directory>&,
                 const std::string&) override {
    refuse();
  }
  void Link(const std::string&, const std::shared_ptr<nfslib::File>&) override { refuse(); }

 protected:
  [[noreturn]] static void none(const std::string& name) {
    throw nfslib::INfsException("there is no " + name);
  }
};

}  // namespace read_only
