#pragma once

#include "memory/node.h"
#include "memory/space.h"
#include "writer_first_mutex.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace nfslib::hosts::memory {

// What all objects of one tree share; each object that was handed out keeps it alive.
class Tree {
 public:
  explicit Tree(std::uint64_t capacity);
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;
  ~Tree();

  std::uint64_t nextFileId() { return ++lastFileId; }

  // In front of the nodes: they give back to the one and are numbered by the other.
  Space space;
  std::atomic<std::uint64_t> lastFileId{0};
  // Guards the shape of the tree: every directory's entries, parent and removal. The order is this
  // lock, then one node's; no two nodes' locks are held at once.
  WriterFirstMutex lock;
  std::shared_ptr<DirectoryNode> root;
};

}  // namespace nfslib::hosts::memory
