#pragma once

#include <atomic>
#include <cstdint>

namespace nfslib::hosts::posix {

// The changes made through one tree, counted, so that whoever read something a while ago can tell
// whether it still stands. Any thread may call.
class Changes {
 public:
  // Lives for as long as a change takes, from before its first effect.
  class Scope {
   public:
    explicit Scope(Changes& changes) : m_changes(changes) { ++m_changes.m_begun; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() { ++m_changes.m_ended; }

   private:
    Changes& m_changes;
  };

  // To be taken before reading.
  std::uint64_t ended() const { return m_ended; }
  // Whether what was read after `ended` had been taken is as it was: no change has begun since, and
  // none was under way, which may have been read halfway.
  bool noneSince(std::uint64_t ended) const { return m_begun == ended; }

 private:
  std::atomic<std::uint64_t> m_begun = 0;
  std::atomic<std::uint64_t> m_ended = 0;
};

}  // namespace nfslib::hosts::posix
