#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <unordered_map>

namespace nfslib {

// The number of the last change of an object, by its id, that the library made or was told of.
// Hosts tell times in whole seconds; with this behind the second, each of several changes within
// one can be seen.
//
// A change is counted when it is made, and a count is read before or after, never in between: where
// changes and other calls run side by side, a count has to be read in front of the attributes that
// it goes with, so that a client may take new attributes for old, but not the other way round.
//
// Numbers only grow. When there are too many rows all of them go, and what has no row has the
// number of the last change of then: clients fetch once more than they had to, and miss nothing.
//
// Thread-safe. The lock is innermost: nothing is called and nothing else is locked under it.
class ChangeCounts {
 public:
  explicit ChangeCounts(std::size_t capacity) : m_capacity(capacity) {}

  // The object was changed, or may have been.
  void count(std::uint64_t id) noexcept {
    const std::lock_guard lock(m_lock);
    const std::uint32_t number = ++m_last;
    try {
      if (m_counts.size() >= m_capacity && !m_counts.contains(id)) forgetRows();
      m_counts[id] = number;
    } catch (const std::bad_alloc&) {
      forgetRows();
    }
  }
  // Every object may have been changed.
  void countAll() noexcept {
    const std::lock_guard lock(m_lock);
    ++m_last;
    forgetRows();
  }
  // 0 for an object that was never changed.
  std::uint32_t of(std::uint64_t id) const {
    // Most trees are only read, and a page of a listing asks hundreds of times.
    if (m_last == 0) return 0;
    const std::lock_guard lock(m_lock);
    const auto at = m_counts.find(id);
    return at == m_counts.end() ? m_floor : at->second;
  }

 private:
  void forgetRows() noexcept {
    m_counts.clear();
    m_floor = m_last;
  }

  const std::size_t m_capacity;
  std::atomic<std::uint32_t> m_last = 0;
  mutable std::mutex m_lock;  // guards the two fields below, and writing the one above
  std::uint32_t m_floor = 0;
  std::unordered_map<std::uint64_t, std::uint32_t> m_counts;
};

}  // namespace nfslib
