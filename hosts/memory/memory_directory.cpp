#include "memory/memory_directory.h"

#include <nfslib/exception.h>
#include <nfslib/hosts/memory_file_system.h>

#include "entry_name.h"
#include "memory/memory_file.h"
#include "memory/memory_symlink.h"

#include <cerrno>
#include <mutex>
#include <shared_mutex>

namespace nfslib::hosts::memory {

namespace {

// A pass over one directory. Each step takes the tree's lock for itself, so a listing that a client
// fetches page by page holds nobody up.
class MemoryEnumerator : public DirectoryEnumerator {
 public:
  MemoryEnumerator(std::shared_ptr<Tree> tree, std::shared_ptr<DirectoryNode> node,
                   EntryTable::Cursor cursor)
      : m_tree(std::move(tree)), m_node(std::move(node)), m_cursor(cursor) {
    step();
  }

  const DirEntry& Current() const override { return m_entry; }
  bool IsValid() const override { return m_valid; }
  void MoveNext() override { step(); }

 private:
  void step() {
    const std::shared_lock lock(m_tree->lock);
    const EntryTable::Entry* entry = m_cursor.next(m_node->entries);
    m_valid = entry != nullptr;
    if (!m_valid) return;
    m_entry.name = entry->name;
    m_entry.metaData = entry->node->metaData();
  }

  const std::shared_ptr<Tree> m_tree;  // outlives the node
  const std::shared_ptr<DirectoryNode> m_node;
  EntryTable::Cursor m_cursor;
  DirEntry m_entry;
  bool m_valid = false;
};

const char* describe(FileType type) {
  if (type == FileType::Directory) return "a directory";
  return type == FileType::SymbolicLink ? "a symbolic link" : "a file";
}

SystemNfsException noEntry(const std::string& name) {
  return {ENOENT, "There is no entry [" + name + "]."};
}

// What clients are told of an object that is of another type than the wanted one.
int errorOf(FileType wanted, const Node& found) {
  if (wanted == FileType::Directory) return ENOTDIR;
  return wanted == FileType::Regular && found.is(FileType::Directory) ? EISDIR : EINVAL;
}

}  // namespace

std::shared_ptr<DirectoryEnumerator> MemoryDirectory::Enumerate() const {
  EntryTable::Cursor cursor = [&] {
    const std::shared_lock lock(m_tree->lock);
    return EntryTable::Cursor(m_node->entries);
  }();
  return std::make_shared<MemoryEnumerator>(m_tree, m_node, cursor);
}

template <class NodeType>
std::shared_ptr<NodeType> MemoryDirectory::open(const std::string& name, FileType type) const {
  requireEntryName(name);
  std::shared_ptr<Node> node;
  {
    const std::shared_lock lock(m_tree->lock);
    node = m_node->entries.find(name);
  }
  if (!node) throw noEntry(name);
  if (!node->is(type)) {
    throw SystemNfsException(errorOf(type, *node), "[" + name + "] is not " + describe(type) + ".");
  }
  return std::static_pointer_cast<NodeType>(node);
}

std::shared_ptr<Directory> MemoryDirectory::OpenSubdir(const std::string& name) {
  return std::make_shared<MemoryDirectory>(m_tree, open<DirectoryNode>(name, FileType::Directory));
}

std::shared_ptr<File> MemoryDirectory::OpenFile(const std::string& name) {
  return std::make_shared<MemoryFile>(m_tree, open<FileNode>(name, FileType::Regular));
}

std::shared_ptr<Symlink> MemoryDirectory::OpenSymlink(const std::string& name) {
  return std::make_shared<MemorySymlink>(m_tree, open<SymlinkNode>(name, FileType::SymbolicLink));
}

MetaData MemoryDirectory::GetMetaData() const { return m_node->metaData(); }

void MemoryDirectory::SetMetaData(const MetaData& md) { m_node->setMetaData(md); }

void MemoryDirectory::requireFree(const std::string& name) const {
  requireEntryName(name);
  if (m_node->removed)
    throw SystemNfsException(ENOENT, "Cannot create [" + name + "]: the directory is gone.");
  if (m_node->entries.find(name)) {
    throw SystemNfsException(EEXIST, "Cannot create [" + name + "]: the name already exists.");
  }
}

void MemoryDirectory::add(const std::string& name, const std::shared_ptr<Node>& node) {
  requireFree(name);
  Reservation reservation(m_tree->space, MemoryFileSystem::kEntryCost);
  m_node->entries.add(name, node);
  reservation.keep(MemoryFileSystem::kEntryCost);
  m_node->entriesChanged();
}

std::shared_ptr<Node> MemoryDirectory::take(const std::string& name) {
  auto node = m_node->entries.remove(name);
  m_tree->space.giveBack(MemoryFileSystem::kEntryCost);
  m_node->entriesChanged();
  if (node->is(FileType::Directory)) {
    auto& gone = static_cast<DirectoryNode&>(*node);
    gone.removed = true;
    gone.parent = nullptr;
    gone.addLinks(-2);
    m_node->addLinks(-1);
  } else {
    node->addLinks(-1);
  }
  return node;
}

std::shared_ptr<Directory> MemoryDirectory::CreateSubdir(const std::string& name) {
  const auto node = std::make_shared<DirectoryNode>(m_tree->nextFileId());
  auto created = std::make_shared<MemoryDirectory>(m_tree, node);
  const std::unique_lock lock(m_tree->lock);
  add(name, node);
  node->parent = m_node.get();
  node->addLinks(2);
  m_node->addLinks(1);
  return created;
}

std::shared_ptr<File> MemoryDirectory::CreateFile(const std::string& name) {
  const auto node = std::make_shared<FileNode>(m_tree->nextFileId(), m_tree->space);
  auto created = std::make_shared<MemoryFile>(m_tree, node);
  const std::unique_lock lock(m_tree->lock);
  add(name, node);
  node->addLinks(1);
  return created;
}

void MemoryDirectory::CreateSymlink(const std::string& name, const std::string& target) {
  requireLinkTarget(target);
  {
    // A name that is taken is told as that, also when the space would not hold the text.
    const std::shared_lock lock(m_tree->lock);
    requireFree(name);
  }
  const auto node = std::make_shared<SymlinkNode>(m_tree->nextFileId(), m_tree->space, target);
  const std::unique_lock lock(m_tree->lock);
  add(name, node);
  node->addLinks(1);
}

void MemoryDirectory::RemoveSubdir(const std::string& name) {
  requireEntryName(name);
  std::shared_ptr<Node> removed;
  const std::unique_lock lock(m_tree->lock);
  const auto node = m_node->entries.find(name);
  if (!node) throw noEntry(name);
  if (!node->is(FileType::Directory))
    throw SystemNfsException(ENOTDIR, "[" + name + "] is not a directory.");
  if (!static_cast<DirectoryNode&>(*node).entries.empty()) {
    throw SystemNfsException(ENOTEMPTY, "The directory [" + name + "] is not empty.");
  }
  removed = take(name);
}

void MemoryDirectory::RemoveFile(const std::string& name) {
  requireEntryName(name);
  std::shared_ptr<Node> removed;
  const std::unique_lock lock(m_tree->lock);
  const auto node = m_node->entries.find(name);
  if (!node) throw noEntry(name);
  if (node->is(FileType::Directory)) {
    throw SystemNfsException(EISDIR, "[" + name + "] is a directory: remove it as one.");
  }
  removed = take(name);
}

void MemoryDirectory::MoveEntry(const std::string& name,
                                const std::shared_ptr<Directory>& newParent,
                                const std::string& newName) {
  requireEntryName(name);
  requireEntryName(newName);
  const auto target = std::dynamic_pointer_cast<MemoryDirectory>(newParent);
  if (!target || target->m_tree != m_tree) {
    throw SystemNfsException(EXDEV,
                             "Cannot move [" + name + "] into a directory of another file system.");
  }

  std::shared_ptr<Node> replaced;
  const std::unique_lock lock(m_tree->lock);
  DirectoryNode& from = *m_node;
  DirectoryNode& to = *target->m_node;
  const auto moved = from.entries.find(name);
  if (!moved) throw noEntry(name);
  if (to.removed)
    throw SystemNfsException(ENOENT, "Cannot move [" + name + "]: the new directory is gone.");
  const auto existing = to.entries.find(newName);
  if (existing == moved) return;

  const bool isDirectory = moved->is(FileType::Directory);
  if (isDirectory) {
    for (const DirectoryNode* at = &to; at != nullptr; at = at->parent) {
      if (at == moved.get()) {
        throw SystemNfsException(EINVAL, "Cannot move the directory [" + name + "] into itself.");
      }
    }
  }
  if (existing) {
    if (existing->is(FileType::Directory) != isDirectory) {
      throw SystemNfsException(isDirectory ? ENOTDIR : EISDIR,
                               "Cannot move [" + name + "] over [" + newName +
                                   "]: one of them is a directory and the other is not.");
    }
    if (isDirectory && !static_cast<DirectoryNode&>(*existing).entries.empty()) {
      throw SystemNfsException(ENOTEMPTY, "Cannot move [" + name + "] over [" + newName +
                                              "]: that directory is not empty.");
    }
  }

  // Whatever needs memory comes before the first change.
  std::string text = newName;
  to.entries.prepareMove();
  if (existing) replaced = target->take(newName);
  EntryTable::move(from.entries, name, to.entries, std::move(text));
  moved->addLinks(0);
  if (isDirectory && &from != &to) {
    static_cast<DirectoryNode&>(*moved).parent = &to;
    from.addLinks(-1);
    to.addLinks(1);
  }
  from.entriesChanged();
  to.entriesChanged();
}

void MemoryDirectory::Link(const std::string& name, const std::shared_ptr<File>& file) {
  const auto target = std::dynamic_pointer_cast<MemoryFile>(file);
  if (!target || target->tree() != m_tree) {
    throw SystemNfsException(EXDEV, "Cannot link [" + name + "] to a file of another file system.");
  }
  const std::unique_lock lock(m_tree->lock);
  if (target->GetMetaData().linkCount == 0) {
    throw SystemNfsException(ENOENT, "Cannot link [" + name + "]: the file was removed.");
  }
  add(name, target->node());
  target->node()->addLinks(1);
}

DirEntry MemoryDirectory::GetEntryByName(const std::string& name) const {
  if (auto entry = TryGetEntryByName(name)) return *std::move(entry);
  throw noEntry(name);
}

std::optional<DirEntry> MemoryDirectory::TryGetEntryByName(const std::string& name) const {
  std::shared_ptr<Node> node;
  {
    const std::shared_lock lock(m_tree->lock);
    node = m_node->entries.find(name);
  }
  if (!node) return std::nullopt;
  return DirEntry{name, node->metaData()};
}

}  // namespace nfslib::hosts::memory
