#pragma once

#include <nfslib/nfs_path.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <shared_mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace nfslib {

// Where the objects are that handles were given out for: from an object id to the paths it was seen
// at, the newest of which is the one that counts.
//
// Ids are told apart by their low 32 bits: of two objects that share them, the one seen last is
// known. A file may have several names (hard links); it stays known while one of them is left.
//
// Thread-safe. The lock is innermost: nothing is called and nothing else is locked under it.
class HandleMap {
 public:
  HandleMap();

  // The object was seen at `path`. `links` is the number of names that it has in all: of those that
  // were seen, as many are kept, so a name that others took away gives way to the new one.
  void remember(std::uint64_t id, const NfsPath& path, std::size_t links);
  std::optional<NfsPath> find(std::uint64_t id) const;

  // Nothing is at `path` or below any more. An object without another name is not known any more.
  void forget(const NfsPath& path);
  // What was at `from` and below is now at `to`, where it took the place of what was there.
  void move(const NfsPath& from, const NfsPath& to);

  // All names that count for the object, the newest first.
  std::vector<NfsPath> namesOf(std::uint64_t id) const;
  // The ids of the objects that have been seen at `path`; of which all but one are gone from there.
  std::vector<std::uint64_t> seenAt(const NfsPath& path) const;
  // The object `id` was moved from `from` to `to` by others, some time ago: calls may have seen it
  // there already, and another object at `from`. Names that others have are left alone. What was
  // below it goes along, unless `from` is another's now.
  void follow(std::uint64_t id, const NfsPath& from, const NfsPath& to);

  std::size_t size() const;

 private:
  struct ByText {
    using is_transparent = void;
    static std::string_view text(const NfsPath& path) { return path.str(); }
    static std::string_view text(std::string_view prefix) { return prefix; }
    bool operator()(const auto& a, const auto& b) const { return text(a) < text(b); }
  };
  using Slot = std::uint32_t;
  using Names = std::multimap<NfsPath, Slot, ByText>;  // in order, so a subtree is a range
  struct Object {
    std::uint64_t id = 0;
    std::vector<const NfsPath*> names;  // keys of m_names, the newest last; never empty
  };

  // Calls `visit` with each pair of iterators into m_names between which the names at `path` and
  // below stand.
  template <class Visit>
  void forSubtree(const NfsPath& path, const Visit& visit);
  void forgetSubtree(const NfsPath& path);
  void dropName(const NfsPath& name, Slot slot);
  // Under `to` from now on, each of the nodes that stood at `from` or below.
  void putBack(std::vector<Names::node_type>& moved, const NfsPath& from, const NfsPath& to);

  mutable std::shared_mutex m_lock;  // guards the two fields below
  std::unordered_map<Slot, Object> m_objects;
  Names m_names;
};

}  // namespace nfslib
