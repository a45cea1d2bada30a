#pragma once

#include <nfslib/metadata.h>
#include <nfslib/nfs_path.h>

#include "fs/change_counts.h"
#include "fs/replacement_cache.h"

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

namespace nfslib {

// Attributes by path, with a lock of its own so that the view and the wrappers that outlive its
// locks can both use it. The lock is innermost: nothing is called and nothing else is locked under
// it.
//
// Whoever asks the host for attributes takes the `changes()` count first and stores with it: when
// something was dropped meanwhile, the answer may be the one from before the change and is not
// kept.
//
// Where the tree changes, the attributes of a file with several names are not kept at all: a change
// through one name would leave those under the others as they were.
class MetaDataCache {
 public:
  enum class Tree { Fixed, Changing };

  explicit MetaDataCache(std::size_t capacity, Tree tree = Tree::Changing)
      : m_tree(tree), m_entries(capacity) {}

  std::optional<MetaData> find(const NfsPath& path) {
    const std::lock_guard lock(m_lock);
    return m_entries.find(path);
  }
  // The id of the object there, when its attributes are kept.
  std::optional<std::uint64_t> findId(const NfsPath& path) {
    const std::lock_guard lock(m_lock);
    const MetaData* const md = m_entries.look(path);
    return md != nullptr ? std::optional(md->fileId) : std::nullopt;
  }
  std::uint64_t changes() const {
    const std::lock_guard lock(m_lock);
    return m_changes;
  }
  void setUnlessChanged(const NfsPath& path, const MetaData& md, std::uint64_t changesBefore) {
    const std::lock_guard lock(m_lock);
    if (m_changes == changesBefore) store(path, md);
  }
  // For attributes that a client has just set: they hold whatever was read meanwhile.
  void set(const NfsPath& path, const MetaData& md) {
    const std::lock_guard lock(m_lock);
    ++m_changes;
    store(path, md);
  }
  void erase(const NfsPath& path) {
    const std::lock_guard lock(m_lock);
    ++m_changes;
    m_entries.erase(path);
  }
  // Drops what is at `top` and below.
  void eraseTree(const NfsPath& top) {
    const std::lock_guard lock(m_lock);
    ++m_changes;
    m_entries.eraseIf([&](const NfsPath& path) { return path.isAtOrBelow(top); });
  }
  std::size_t size() const {
    const std::lock_guard lock(m_lock);
    return m_entries.size();
  }

  // From now on changes are counted by object. Before the first use of the cache.
  void countChanges(std::size_t capacity) { m_counts.emplace(capacity); }
  // Nothing where they are not.
  std::optional<ChangeCounts>& counts() { return m_counts; }

 private:
  // Under m_lock.
  void store(const NfsPath& path, const MetaData& md) {
    const bool severalNames = !isType(md, FileType::Directory) && md.linkCount > 1;
    if (m_tree == Tree::Changing && severalNames) {
      m_entries.erase(path);
    } else {
      m_entries.set(path, md);
    }
  }

  const Tree m_tree;
  std::optional<ChangeCounts> m_counts;  // has a lock of its own
  mutable std::mutex m_lock;             // guards the two fields below
  std::uint64_t m_changes = 0;
  utility::replacement_cache<NfsPath, MetaData> m_entries;
};

}  // namespace nfslib
