#include "writable_tree.h"

#include <nfslib/exception.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include <unistd.h>

namespace writable {

namespace {

using nfslib::DirEntry;
using nfslib::FileType;
using nfslib::MetaData;
using nfslib::SystemNfsException;

constexpr std::uint64_t kBlock = Tree::kBlock;
constexpr std::uint64_t kLargestFile = 1ULL << 40;

std::uint32_t now() {
  using namespace std::chrono;
  return static_cast<std::uint32_t>(
      duration_cast<seconds>(system_clock::now().time_since_epoch()).count());
}

// What the objects of one tree share.
struct Shared {
  std::mutex lock;           // guards every node of the tree; nothing else is locked under it
  std::uint64_t lastId = 0;  // under `lock`
  // Bytes left. Taken under `lock`; given back by whoever lets go of a node last, so without it.
  std::atomic<std::uint64_t> room;

  void require(std::uint64_t bytes) const {
    if (bytes > room) throw nfslib::OutOfSpaceNfsException("The tree in memory is full.");
  }
};

// One object, whatever its type and however many names it has. Everything but the constructor and
// the destructor runs under Shared::lock.
struct Node {
  Node(std::shared_ptr<Shared> of, FileType type, std::uint16_t mode) : shared(std::move(of)) {
    md.type = static_cast<std::uint32_t>(type);
    md.fileId = ++shared->lastId;
    md.uid = ::geteuid();
    md.gid = ::getegid();
    md.mode = mode;
    md.accessTime = md.changeTime = md.modifyTime = now();
  }
  ~Node() { shared->room += blocks.size() * kBlock; }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  bool is(FileType type) const { return isType(md, type); }
  bool isGone() const { return md.linkCount == 0; }
  // The content changed: clients keep what they have while modifyTime stands still.
  void touch() { md.changeTime = md.modifyTime = now(); }

  void set(const MetaData& wanted) {
    const MetaData before = md;
    if (is(FileType::Regular) && wanted.size != md.size) resize(wanted.size);
    md.mode = wanted.mode;
    md.uid = wanted.uid;
    md.gid = wanted.gid;
    md.accessTime = wanted.accessTime;
    // A new size has moved it already, unless the client says to when.
    if (wanted.modifyTime != before.modifyTime) md.modifyTime = wanted.modifyTime;
    md.changeTime = now();
  }

  void resize(std::uint64_t size) {
    if (size > kLargestFile) throw SystemNfsException(EFBIG, "The file would be too large.");
    if (size < md.size) {
      const auto first = blocks.lower_bound((size + kBlock - 1) / kBlock);
      shared->room += static_cast<std::uint64_t>(std::distance(first, blocks.end())) * kBlock;
      blocks.erase(first, blocks.end());
      // What was cut off must not come back when the file grows again.
      if (const auto last = blocks.find(size / kBlock); last != blocks.end()) {
        std::fill(last->second.begin() + size % kBlock, last->second.end(), '\0');
      }
    }
    md.size = size;
    touch();
  }

  const std::shared_ptr<Shared> shared;
  MetaData md;
  // A file's content by number of block; a block that is not there is all zeros.
  std::map<std::uint64_t, std::array<char, kBlock>> blocks;
  std::string target;                                    // of a symbolic link
  std::map<std::string, std::shared_ptr<Node>> entries;  // of a directory
};

using NodePtr = std::shared_ptr<Node>;
using Lock = std::lock_guard<std::mutex>;

// Walks over the blocks that hold the `length` bytes from `offset` on: `visit` is told the number
// of the block, where in it to begin, where in the caller's bytes that is, and how many bytes.
template <class Visit>
void forBlocks(std::uint64_t offset, std::uint64_t length, Visit visit) {
  for (std::uint64_t done = 0, bytes = 0; done < length; done += bytes) {
    const std::uint64_t at = (offset + done) % kBlock;
    bytes = std::min(kBlock - at, length - done);
    visit((offset + done) / kBlock, at, done, bytes);
  }
}

// What files, directories and symbolic links have in common.
template <class Kind>
class Object : public Kind {
 public:
  explicit Object(NodePtr node) : m_node(std::move(node)) {}

  MetaData GetMetaData() const override {
    const Lock lock(m_node->shared->lock);
    return m_node->md;
  }
  void SetMetaData(const MetaData& md) override {
    const Lock lock(m_node->shared->lock);
    m_node->set(md);
  }
  const NodePtr& node() const { return m_node; }

 protected:
  const NodePtr m_node;
};

class Symlink : public Object<nfslib::Symlink> {
 public:
  using Object::Object;
  std::string GetTarget() override { return m_node->target; }  // never changes
};

class File : public Object<nfslib::File> {
 public:
  using Object::Object;

  unsigned long Read(unsigned long offset, void* buffer, unsigned long length) override {
    const Lock lock(m_node->shared->lock);
    const std::uint64_t size = m_node->md.size;
    length = std::min(length, size - std::min(size, offset));
    forBlocks(offset, length, [&](auto number, auto at, auto done, auto bytes) {
      char* const out = static_cast<char*>(buffer) + done;
      const auto block = m_node->blocks.find(number);
      if (block == m_node->blocks.end()) {
        std::memset(out, 0, bytes);
      } else {
        std::memcpy(out, block->second.data() + at, bytes);
      }
    });
    return length;
  }

  unsigned long Write(unsigned long offset, const void* data, unsigned long length) override {
    const Lock lock(m_node->shared->lock);
    if (length > kLargestFile || offset > kLargestFile - length) {
      throw SystemNfsException(EFBIG, "The file would be too large.");
    }
    // All or nothing, so whether it fits is asked first.
    std::uint64_t missing = 0;
    forBlocks(offset, length, [&](auto number, auto, auto, auto) {
      missing += m_node->blocks.contains(number) ? 0 : kBlock;
    });
    m_node->shared->require(missing);
    forBlocks(offset, length, [&](auto number, auto at, auto done, auto bytes) {
      const auto [block, isNew] = m_node->blocks.try_emplace(number);
      if (isNew) m_node->shared->room -= kBlock;
      std::memcpy(block->second.data() + at, static_cast<const char*>(data) + done, bytes);
    });
    m_node->md.size = std::max(m_node->md.size, offset + length);
    m_node->touch();
    return length;
  }
};

class Directory : public Object<nfslib::Directory> {
 public:
  using Object::Object;

  std::shared_ptr<nfslib::DirectoryEnumerator> Enumerate() const override;

  std::optional<DirEntry> TryGetEntryByName(const std::string& name) const override {
    const Lock lock(m_node->shared->lock);
    const NodePtr found = find(name);
    if (!found) return std::nullopt;
    return DirEntry{name, found->md};
  }
  DirEntry GetEntryByName(const std::string& name) const override {
    const Lock lock(m_node->shared->lock);
    return {name, get(name)->md};
  }

  std::shared_ptr<nfslib::Directory> OpenSubdir(const std::string& name) override {
    return open<Directory>(name, FileType::Directory, ENOTDIR);
  }
  std::shared_ptr<nfslib::File> OpenFile(const std::string& name) override {
    return open<File>(name, FileType::Regular, EISDIR);
  }
  std::shared_ptr<nfslib::Symlink> OpenSymlink(const std::string& name) override {
    return open<Symlink>(name, FileType::SymbolicLink, EINVAL);
  }

  std::shared_ptr<nfslib::Directory> CreateSubdir(const std::string& name) override {
    return create<Directory>(name, FileType::Directory, 0755);
  }
  std::shared_ptr<nfslib::File> CreateFile(const std::string& name) override {
    return create<File>(name, FileType::Regular, 0644);
  }
  void CreateSymlink(const std::string& name, const std::string& target) override {
    if (target.size() >= kBlock) {
      throw SystemNfsException(ENAMETOOLONG, "The text of the link [" + name + "] is too long.");
    }
    create<Symlink>(name, FileType::SymbolicLink, 0777, target);
  }

  void Link(const std::string& name, const std::shared_ptr<nfslib::File>& file) override {
    const Lock lock(m_node->shared->lock);
    const auto ours = std::dynamic_pointer_cast<File>(file);
    if (!ours || ours->node()->shared != m_node->shared) throw otherTree(name);
    if (ours->node()->isGone()) throw SystemNfsException(ENOENT, "The file was removed.");
    add(name, ours->node());
  }

  void RemoveFile(const std::string& name) override {
    const Lock lock(m_node->shared->lock);
    if (get(name)->is(FileType::Directory)) {
      throw SystemNfsException(EISDIR, "[" + name + "] is a directory.");
    }
    takeOut(name);
  }
  void RemoveSubdir(const std::string& name) override {
    const Lock lock(m_node->shared->lock);
    requireEmptyDirectory(name, *get(name));
    takeOut(name);
  }

  void MoveEntry(const std::string& name, const std::shared_ptr<nfslib::Directory>& newParent,
                 const std::string& newName) override {
    const Lock lock(m_node->shared->lock);
    const auto target = std::dynamic_pointer_cast<Directory>(newParent);
    if (!target || target->node()->shared != m_node->shared) throw otherTree(name);
    const NodePtr moved = get(name);
    const NodePtr replaced = target->find(newName);
    if (replaced == moved) return;
    if (isAtOrBelow(target->node(), moved)) {
      throw SystemNfsException(EINVAL, "[" + name + "] cannot be moved into itself.");
    }
    if (!replaced) {
      target->requireFree(newName);
    } else if (moved->is(FileType::Directory)) {
      requireEmptyDirectory(newName, *replaced);
    } else if (replaced->is(FileType::Directory)) {
      throw SystemNfsException(EISDIR, "[" + newName + "] is a directory.");
    }
    // Nothing can fail any more: there is room for the name, since one goes first.
    if (replaced) target->takeOut(newName);
    takeOut(name);
    target->add(newName, moved);
  }

 private:
  NodePtr find(const std::string& name) const {
    const auto found = m_node->entries.find(name);
    return found == m_node->entries.end() ? nullptr : found->second;
  }
  NodePtr get(const std::string& name) const {
    if (NodePtr found = find(name)) return found;
    throw SystemNfsException(ENOENT, "There is no entry [" + name + "].");
  }

  template <class Opened>
  std::shared_ptr<Opened> open(const std::string& name, FileType type, int otherwise) const {
    const Lock lock(m_node->shared->lock);
    NodePtr found = get(name);
    if (!found->is(type)) {
      throw SystemNfsException(otherwise, "[" + name + "] is of another type.");
    }
    return std::make_shared<Opened>(std::move(found));
  }

  template <class Created>
  std::shared_ptr<Created> create(const std::string& name, FileType type, std::uint16_t mode,
                                  const std::string& target = {}) {
    const Lock lock(m_node->shared->lock);
    auto node = std::make_shared<Node>(m_node->shared, type, mode);
    node->target = target;
    node->md.size = target.size();
    auto created = std::make_shared<Created>(node);
    add(name, node);
    return created;
  }

  void requireFree(const std::string& name) const {
    if (m_node->isGone()) throw SystemNfsException(ENOENT, "The directory was removed.");
    if (name.empty() || name == "." || name == ".." || name.size() > 255 ||
        name.find_first_of(std::string("/\0", 2)) != std::string::npos) {
      throw SystemNfsException(EINVAL, "[" + name + "] cannot be the name of an entry.");
    }
    // By these words clients of the classic profile are told what is wrong.
    if (find(name)) throw SystemNfsException(EEXIST, "[" + name + "] already exists.");
  }
  static void requireEmptyDirectory(const std::string& name, const Node& node) {
    if (!node.is(FileType::Directory)) {
      throw SystemNfsException(ENOTDIR, "[" + name + "] is not a directory.");
    }
    if (!node.entries.empty()) throw SystemNfsException(ENOTEMPTY, "[" + name + "] is not empty.");
  }
  static SystemNfsException otherTree(const std::string& name) {
    return {EXDEV, "[" + name + "] is of another tree."};
  }

  static bool isAtOrBelow(const NodePtr& node, const NodePtr& top) {
    std::vector<NodePtr> left{top};
    while (!left.empty()) {
      const NodePtr next = left.back();
      left.pop_back();
      if (next == node) return true;
      for (const auto& [name, entry] : next->entries) {
        if (entry->is(FileType::Directory)) left.push_back(entry);
      }
    }
    return false;
  }

  void add(const std::string& name, const NodePtr& node) {
    requireFree(name);
    m_node->shared->require(kBlock);
    m_node->entries.emplace(name, node);
    m_node->shared->room -= kBlock;
    countNames(*node, 1);
  }
  void takeOut(const std::string& name) {
    const NodePtr node = get(name);
    m_node->entries.erase(name);
    m_node->shared->room += kBlock;
    countNames(*node, -1);
  }
  // A directory is named by its parent and by its own ".", its parent by its "..".
  void countNames(Node& node, int names) {
    const bool isDirectory = node.is(FileType::Directory);
    node.md.linkCount += static_cast<std::uint32_t>(isDirectory ? 2 * names : names);
    if (isDirectory) m_node->md.linkCount += static_cast<std::uint32_t>(names);
    node.md.changeTime = now();
    m_node->touch();
  }
};

// A pass that goes from name to name, in order: what comes and goes meanwhile does not disturb it,
// and it keeps one entry only.
class Enumerator : public nfslib::DirectoryEnumerator {
 public:
  explicit Enumerator(NodePtr directory) : m_directory(std::move(directory)) { MoveNext(); }

  const DirEntry& Current() const override { return m_entry; }
  bool IsValid() const override { return m_isValid; }
  void MoveNext() override {
    const Lock lock(m_directory->shared->lock);
    const auto next = m_directory->entries.upper_bound(m_entry.name);  // "" is before all names
    m_isValid = next != m_directory->entries.end();
    if (m_isValid) m_entry = {next->first, next->second->md};
  }

 private:
  const NodePtr m_directory;
  DirEntry m_entry;
  bool m_isValid = false;
};

std::shared_ptr<nfslib::DirectoryEnumerator> Directory::Enumerate() const {
  return std::make_shared<Enumerator>(m_node);
}

}  // namespace

Tree::Tree(std::uint64_t capacityBytes) {
  const auto shared = std::make_shared<Shared>();
  shared->room = capacityBytes;
  const auto root = std::make_shared<Node>(shared, FileType::Directory, 0755);
  root->md.linkCount = 2;
  m_root = std::make_shared<Directory>(root);
}

}  // namespace writable
