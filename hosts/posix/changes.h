#pragma once

#include "writer_first_mutex.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include <sys/stat.h>

namespace nfslib::hosts::posix {

// The changes made through one tree. Counted, so that whoever read something a while ago can tell
// whether it still stands; and, where the system is asked what happens to the tree, remembered for
// a moment, so that its reports of them can be told from those of changes by others. Any thread may
// call.
class Changes {
 public:
  // What may happen to a name.
  enum class Kind : char { Made = '+', Removed = '-', MovedAway = '<', MovedHere = '>' };

  // Lives for as long as a change takes, from before its first effect. Not within another one.
  class Scope {
   public:
    explicit Scope(Changes& changes) : m_changes(changes), m_underWay(changes.m_underWay) {
      ++m_changes.m_begun;
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() { ++m_changes.m_ended; }

    // This happened to the entry `name` of the directory at `path`.
    void happened(Kind kind, const std::string& path, const std::string& name) noexcept;
    // The object that `fd` has open, or that is the entry `name` of the directory `fd`, was
    // changed: as it is now it is this change's.
    void left(int fd, const char* name = nullptr) noexcept;

   private:
    Changes& m_changes;
    const std::shared_lock<WriterFirstMutex> m_underWay;
  };

  // To be taken before reading.
  std::uint64_t ended() const { return m_ended; }
  // Whether what was read after `ended` had been taken is as it was: no change has begun since, and
  // none was under way, which may have been read halfway.
  bool noneSince(std::uint64_t ended) const { return m_begun == ended; }

  // ---- For whoever reads the system's reports

  // From now on changes are remembered.
  void remember() { m_remembers = true; }
  // No change is under way while this is held: what the system has reported is remembered.
  std::unique_lock<WriterFirstMutex> pause() { return std::unique_lock(m_underWay); }
  // Whether this happened to the name through this tree; forgets it, since it is reported once.
  bool takeOwn(Kind kind, const std::string& path, const std::string& name);
  // Whether the object is as the last change through this tree left it.
  bool isOwn(const struct statx& status) const;
  // Reports were lost: what was to be found in them will not come.
  void forget();

 private:
  struct Key {
    std::uint64_t device;
    std::uint64_t inode;
    bool operator==(const Key&) const = default;
  };
  struct Hash {
    std::size_t operator()(const Key& key) const noexcept {
      return static_cast<std::size_t>(key.inode * 0x9E37'79B9'7F4A'7C15U ^ key.device);
    }
  };
  using Clock = std::chrono::steady_clock;

  std::atomic<std::uint64_t> m_begun = 0;
  std::atomic<std::uint64_t> m_ended = 0;
  std::atomic<bool> m_remembers = false;
  // Held shared for the length of a change; exclusively for a look at what a report is about. Below
  // Tree::lock and Tree::modeLock.
  WriterFirstMutex m_underWay;
  mutable std::mutex m_lock;  // innermost; guards the two fields below
  std::unordered_multimap<std::string, Clock::time_point> m_names;
  std::unordered_map<Key, std::int64_t, Hash> m_left;  // times of change, in nanoseconds
};

}  // namespace nfslib::hosts::posix
