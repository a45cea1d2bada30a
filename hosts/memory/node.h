#pragma once

#include <nfslib/metadata.h>

#include "memory/entry_table.h"
#include "memory/sparse_bytes.h"
#include "writer_first_mutex.h"

#include <cstdint>
#include <string>

namespace nfslib::hosts::memory {

// One object of the tree, shared by the entries that name it and by whoever holds it open.
class Node {
 public:
  Node(FileType type, std::uint64_t fileId, std::uint16_t mode);
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  virtual ~Node();

  bool is(FileType type) const { return m_type == type; }
  MetaData metaData() const;
  // Applies what differs in mode, owner, group, access and modification time, and, for a file,
  // size.
  void setMetaData(const MetaData& wanted);
  // The number of names changes by `names`, and with it the time of the last attribute change.
  void addLinks(int names);

 protected:
  // The subclass's share of `setMetaData`, under `m_lock`. Throws before it has changed anything.
  virtual void resize(std::uint64_t) {}
  // The content changed: both times move. Under `m_lock`.
  void touch(std::uint64_t size);

  // Guards the attributes, and the content of a file. Innermost: taken under Tree::lock or alone.
  mutable WriterFirstMutex m_lock;

 private:
  const FileType m_type;
  MetaData m_md;
};

class FileNode : public Node {
 public:
  FileNode(std::uint64_t fileId, Space& space);

  std::uint64_t read(std::uint64_t offset, std::byte* out, std::uint64_t length) const;
  void write(std::uint64_t offset, const std::byte* data, std::uint64_t length);

 private:
  void resize(std::uint64_t size) override;

  SparseBytes m_bytes;  // under m_lock
};

// The text counts against the space for as long as the node lives.
class SymlinkNode : public Node {
 public:
  SymlinkNode(std::uint64_t fileId, Space& space, const std::string& target);
  ~SymlinkNode() override;

  const std::string& target() const { return m_target; }

 private:
  Space& m_space;
  const std::string m_target;
};

class DirectoryNode : public Node {
 public:
  explicit DirectoryNode(std::uint64_t fileId);

  // An entry came, went or changed its name.
  void entriesChanged();

  EntryTable entries;               // under Tree::lock
  DirectoryNode* parent = nullptr;  // under Tree::lock; nullptr for the root and once removed
  bool removed = false;             // under Tree::lock
};

}  // namespace nfslib::hosts::memory
