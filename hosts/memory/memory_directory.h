#pragma once

#include <nfslib/file_system.h>

#include "memory/tree.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace nfslib::hosts::memory {

class MemoryDirectory : public Directory {
 public:
  MemoryDirectory(std::shared_ptr<Tree> tree, std::shared_ptr<DirectoryNode> node)
      : m_tree(std::move(tree)), m_node(std::move(node)) {}

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
  // The node called `name`; throws when there is none, or when it is not a `NodeType`.
  template <class NodeType>
  std::shared_ptr<NodeType> open(const std::string& name, FileType type) const;
  // Throws unless an entry `name` may be added here. Under the tree's lock.
  void requireFree(const std::string& name) const;
  // Adds the entry `name` and counts it. Under the tree's lock; throws having changed nothing.
  void add(const std::string& name, const std::shared_ptr<Node>& node);
  // Takes out the entry `name`, which exists. Under the tree's lock. The caller lets go of the
  // node after the lock, since freeing a large file takes a while.
  std::shared_ptr<Node> take(const std::string& name);

  const std::shared_ptr<Tree> m_tree;  // outlives the node
  const std::shared_ptr<DirectoryNode> m_node;
};

}  // namespace nfslib::hosts::memory
