#include "fs/handle_map.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>

namespace nfslib {

namespace {

constexpr std::size_t kBuckets = 65536;

}  // namespace

HandleMap::HandleMap() { m_objects.reserve(kBuckets); }

void HandleMap::remember(std::uint64_t id, const NfsPath& path, std::size_t links) {
  const auto slot = static_cast<Slot>(id);
  const std::size_t mostNames = std::max<std::size_t>(links, 1);
  {
    // Almost every time the object is where it was.
    const std::shared_lock lock(m_lock);
    const auto at = m_objects.find(slot);
    if (at != m_objects.end() && at->second.id == id && *at->second.names.back() == path &&
        at->second.names.size() <= mostNames) {
      return;
    }
  }
  const std::unique_lock lock(m_lock);
  const auto fresh = m_names.emplace(path, slot);
  Object& object = m_objects[slot];
  std::size_t kept = std::exchange(object.id, id) == id ? mostNames - 1 : 0;
  // The path is the newest name, whether or not it was one of the older ones.
  std::vector<const NfsPath*> older = std::exchange(object.names, {&fresh->first});
  std::for_each(older.rbegin(), older.rend(), [&](const NfsPath* name) {
    if (*name == path || kept == 0) {
      const auto [first, last] = m_names.equal_range(*name);
      m_names.erase(std::find_if(first, last, [&](auto& row) { return &row.first == name; }));
    } else {
      --kept;
      object.names.insert(object.names.begin(), name);
    }
  });
}

std::optional<NfsPath> HandleMap::find(std::uint64_t id) const {
  const std::shared_lock lock(m_lock);
  const auto at = m_objects.find(static_cast<Slot>(id));
  if (at == m_objects.end()) return std::nullopt;
  return *at->second.names.back();
}

template <class Visit>
void HandleMap::forSubtree(const NfsPath& path, const Visit& visit) {
  const auto [first, last] = m_names.equal_range(path);
  visit(first, last);
  // "/a/" and what begins with it stands before "/a0", and other names than these do not.
  std::string prefix = path.isRootPath() ? path.str() : path.str() + '/';
  const auto below = m_names.lower_bound(std::string_view(prefix));
  ++prefix.back();
  visit(below, m_names.lower_bound(std::string_view(prefix)));
}

void HandleMap::forget(const NfsPath& path) {
  const std::unique_lock lock(m_lock);
  forgetSubtree(path);
}

void HandleMap::forgetSubtree(const NfsPath& path) {
  forSubtree(path, [this](Names::iterator at, Names::iterator last) {
    while (at != last) {
      dropName(at->first, at->second);
      at = m_names.erase(at);
    }
  });
}

void HandleMap::dropName(const NfsPath& name, Slot slot) {
  const auto object = m_objects.find(slot);
  if (object == m_objects.end()) return;
  std::erase(object->second.names, &name);
  if (object->second.names.empty()) m_objects.erase(object);
}

void HandleMap::move(const NfsPath& from, const NfsPath& to) {
  if (from == to) return;
  const std::unique_lock lock(m_lock);
  forgetSubtree(to);
  std::vector<Names::node_type> moved;
  forSubtree(from, [&](Names::iterator at, Names::iterator last) {
    while (at != last) moved.push_back(m_names.extract(at++));
  });
  putBack(moved, from, to);
}

// The nodes, and with them the addresses of the keys, stay what they were.
void HandleMap::putBack(std::vector<Names::node_type>& moved, const NfsPath& from,
                        const NfsPath& to) {
  for (Names::node_type& node : moved) {
    node.key() = NfsPath(to.str() + node.key().str().substr(from.str().size()));
    m_names.insert(std::move(node));
  }
}

std::vector<NfsPath> HandleMap::namesOf(std::uint64_t id) const {
  std::vector<NfsPath> names;
  const std::shared_lock lock(m_lock);
  const auto at = m_objects.find(static_cast<Slot>(id));
  if (at == m_objects.end()) return names;
  std::for_each(at->second.names.rbegin(), at->second.names.rend(),
                [&](const NfsPath* name) { names.push_back(*name); });
  return names;
}

std::vector<std::uint64_t> HandleMap::seenAt(const NfsPath& path) const {
  std::vector<std::uint64_t> ids;
  const std::shared_lock lock(m_lock);
  const auto [first, last] = m_names.equal_range(path);
  std::for_each(first, last, [&](const auto& row) { ids.push_back(m_objects.at(row.second).id); });
  return ids;
}

void HandleMap::follow(std::uint64_t id, const NfsPath& from, const NfsPath& to) {
  if (from == to) return;
  const auto slot = static_cast<Slot>(id);
  const std::unique_lock lock(m_lock);
  const auto rowOf = [&](const NfsPath& path) {
    const auto [first, last] = m_names.equal_range(path);
    const auto row = std::find_if(first, last, [&](auto& each) { return each.second == slot; });
    return row == last ? m_names.end() : row;
  };
  const bool isThere = rowOf(to) != m_names.end();
  const auto old = rowOf(from);
  std::vector<Names::node_type> moved;
  if (old != m_names.end() && isThere) {
    dropName(old->first, slot);
    m_names.erase(old);
  } else if (old != m_names.end()) {
    moved.push_back(m_names.extract(old));
  }
  if (!m_names.contains(from)) {
    forSubtree(from, [&](Names::iterator at, Names::iterator last) {
      while (at != last) moved.push_back(m_names.extract(at++));
    });
  }
  putBack(moved, from, to);
}

std::size_t HandleMap::size() const {
  const std::shared_lock lock(m_lock);
  return m_objects.size();
}

}  // namespace nfslib
