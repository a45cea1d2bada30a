#pragma once

#include <nfslib/exception.h>
#include <nfslib/file_system.h>

#include <memory>
#include <string>

/// \file
/// What objects of a tree that cannot be changed start from: every change is refused with EROFS,
/// the rest is left to the derived class.

namespace nfslib::hosts::read_only {

/// Throws SystemNfsException(EROFS).
[[noreturn]] inline void refuse() { throw SystemNfsException(EROFS, "This tree is read-only."); }

/// A file that cannot be changed.
class RefusingFile : public File {
 public:
  unsigned long Write(unsigned long, const void*, unsigned long) override { refuse(); }
  void SetMetaData(const MetaData&) override { refuse(); }
};

/// A symbolic link that cannot be changed.
class RefusingSymlink : public Symlink {
 public:
  void SetMetaData(const MetaData&) override { refuse(); }
};

/// A directory that cannot be changed, and its entries neither.
class RefusingDirectory : public Directory {
 public:
  void SetMetaData(const MetaData&) override { refuse(); }
  std::shared_ptr<Directory> CreateSubdir(const std::string&) override { refuse(); }
  std::shared_ptr<File> CreateFile(const std::string&) override { refuse(); }
  void CreateSymlink(const std::string&, const std::string&) override { refuse(); }
  void RemoveSubdir(const std::string&) override { refuse(); }
  void RemoveFile(const std::string&) override { refuse(); }
  void MoveEntry(const std::string&, const std::shared_ptr<Directory>&,
                 const std::string&) override {
    refuse();
  }
  void Link(const std::string&, const std::shared_ptr<File>&) override { refuse(); }
};

}  // namespace nfslib::hosts::read_only
