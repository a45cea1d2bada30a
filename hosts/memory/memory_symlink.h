#pragma once

#include <nfslib/file_system.h>

#include "memory/tree.h"

#include <memory>
#include <string>
#include <utility>

namespace nfslib::hosts::memory {

class MemorySymlink : public Symlink {
 public:
  MemorySymlink(std::shared_ptr<Tree> tree, std::shared_ptr<SymlinkNode> node)
      : m_tree(std::move(tree)), m_node(std::move(node)) {}

  std::string GetTarget() override;
  MetaData GetMetaData() const override;
  void SetMetaData(const MetaData& md) override;

 private:
  const std::shared_ptr<Tree> m_tree;  // outlives the node
  const std::shared_ptr<SymlinkNode> m_node;
};

}  // namespace nfslib::hosts::memory
