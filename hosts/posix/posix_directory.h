#pragma once

#include <nfslib/file_system.h>

#include "posix/tree.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <fcntl.h>

namespace nfslib::hosts::posix {

// A directory. It knows its place and opens what is there for each operation, which then works with
// names relative to that one descriptor.
class PosixDirectory : public Directory {
 public:
  PosixDirectory(std::shared_ptr<Tree> tree, std::shared_ptr<Place> place)
      : m_tree(std::move(tree)), m_place(std::move(place)) {}
  ~PosixDirectory() override;

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

 private:
  // This directory, opened; the descriptor stays with it whatever becomes of the names.
  OpenDirectory open(int flags = O_PATH) const;
  // Removes the entry `name` with unlinkat(2) and `flags`, and forgets its object with its last
  // name.
  void remove(const std::string& name, int flags);

  const std::shared_ptr<Tree> m_tree;  // outlives the place
  std::shared_ptr<Place> m_place;
};

}  // namespace nfslib::hosts::posix
