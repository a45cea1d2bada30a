#pragma once

#include <nfslib/file_system.h>

#include "memory/tree.h"

#include <memory>
#include <utility>

namespace nfslib::hosts::memory {

class MemoryFile : public File {
 public:
  MemoryFile(std::shared_ptr<Tree> tree, std::shared_ptr<FileNode> node)
      : m_tree(std::move(tree)), m_node(std::move(node)) {}

  unsigned long Read(unsigned long offset, void* buffer, unsigned long length) override;
  unsigned long Write(unsigned long offset, const void* data, unsigned long length) override;
  MetaData GetMetaData() const override;
  void SetMetaData(const MetaData& md) override;

  const std::shared_ptr<Tree>& tree() const { return m_tree; }
  const std::shared_ptr<FileNode>& node() const { return m_node; }

 private:
  const std::shared_ptr<Tree> m_tree;  // outlives the node
  const std::shared_ptr<FileNode> m_node;
};

}  // namespace nfslib::hosts::memory
