#pragma once

#include <algorithm>
#include <cstddef>
#include <list>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace nfslib::utility {

// Bounded map that drops its oldest entry when it is full. Capacity counts entries and is at
// least 1.
//
// A hit makes the entry the newest (least-recently-used order). Values are copied in and out; a
// shared_ptr value keeps its object open until the entry is evicted or erased.
//
// Not thread-safe: the owner locks, exclusively even for lookups, since a hit reorders. What leaves
// the cache is returned, so that an owner can let go of it after its lock.
template <class Key, class Value>
class replacement_cache {
 public:
  explicit replacement_cache(std::size_t capacity)
      : m_capacity(std::max<std::size_t>(capacity, 1)) {
    // No rehash in steady state; a huge capacity that may never be used is not paid in advance.
    m_index.reserve(std::min<std::size_t>(m_capacity, 16384));
  }

  // Stores `value`, replacing what `key` had before; the entry becomes the newest. Returns the
  // value that made way for it.
  std::optional<Value> set(const Key& key, const Value& value) {
    std::optional<Value> displaced;
    if (const auto at = m_index.find(key); at != m_index.end()) {
      displaced = std::exchange(at->second->second, value);
      touch(at->second);
      return displaced;
    }
    if (m_index.size() == m_capacity) {
      displaced = std::move(m_entries.back().second);
      m_index.erase(m_entries.back().first);
      m_entries.pop_back();
    }
    m_entries.emplace_front(key, value);
    m_index.emplace(key, m_entries.begin());
    return displaced;
  }

  std::optional<Value> find(const Key& key) {
    const Value* const found = look(key);
    return found != nullptr ? std::optional(*found) : std::nullopt;
  }
  // The same without a copy: valid until the cache is changed. Null when there is none.
  const Value* look(const Key& key) {
    const auto at = m_index.find(key);
    if (at == m_index.end()) return nullptr;
    touch(at->second);
    return &at->second->second;
  }

  std::optional<Value> erase(const Key& key) {
    const auto at = m_index.find(key);
    if (at == m_index.end()) return std::nullopt;
    std::optional<Value> erased(std::move(at->second->second));
    m_entries.erase(at->second);
    m_index.erase(at);
    return erased;
  }

  // Erases every entry whose key `matches`, in time proportional to the size of the cache.
  template <class Predicate>
  std::vector<Value> eraseIf(const Predicate& matches) {
    std::vector<Value> erased;
    for (auto at = m_entries.begin(); at != m_entries.end();) {
      if (!matches(at->first)) {
        ++at;
        continue;
      }
      erased.push_back(std::move(at->second));
      m_index.erase(at->first);
      at = m_entries.erase(at);
    }
    return erased;
  }

  std::size_t size() const { return m_index.size(); }

 private:
  using Entries = std::list<std::pair<Key, Value>>;

  void touch(typename Entries::iterator entry) {
    if (entry != m_entries.begin()) m_entries.splice(m_entries.begin(), m_entries, entry);
  }

  std::size_t m_capacity;
  Entries m_entries;  // newest first
  std::unordered_map<Key, typename Entries::iterator> m_index;
};

}  // namespace nfslib::utility
