#pragma once

#include "common/buffers.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace nfslib::rpc {

// The replies to calls that must not be done twice. A client that gets no answer in time, or whose
// connection broke, sends its call again; what it then gets is what the first one was answered.
// RFC 1813 section 4.5 and RFC 5531 section 4 ask for that.
//
// A call that comes again while it is still being served waits for that reply. Dropping it would
// cost the client another timeout, a minute on TCP, and the reply of the first one may be on its
// way into a connection that is gone. Only the thread of that caller's own connection waits.
//
// Thread-safe. The lock is held for a look-up or a change, never while a call is served.
class ReplyCache {
 public:
  // What makes two calls one. The caller's port is left out: a client that connects again comes
  // from another one. The checksum, of all bytes of the call, tells apart what several clients of
  // one address ask for under one xid; the credential is part of it.
  struct Key {
    std::uint32_t address = 0;
    unsigned xid = 0;
    unsigned program = 0;
    unsigned version = 0;
    unsigned procedure = 0;
    std::uint64_t checksum = 0;

    bool operator==(const Key&) const = default;
  };
  using Clock = std::chrono::steady_clock;
  // What is kept at most. The oldest replies go first.
  struct Limits {
    std::size_t bytes = 4U << 20U;  // with what it takes to find them
    std::size_t replies = 8192;
    // Clients on TCP ask again after one minute, and after two more.
    std::chrono::seconds age{200};
    std::function<Clock::time_point()> now = Clock::now;
  };
  using Reply = std::vector<std::byte>;

 private:
  struct Call {
    bool isOver = false;
    std::shared_ptr<const Reply> reply;  // none when the call was given up
    Clock::time_point since;             // when it was answered
  };

 public:
  // One arrival of a call, until it is answered.
  class Turn {
   public:
    // Waits while the same call is being served.
    Turn(ReplyCache& cache, const Key& key);
    // A call that got no reply is served when it comes again.
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    // The reply that the call has got already; without one it is to be served now.
    const Reply* reply() const { return m_reply.get(); }
    // The call was served.
    void keep(memory::const_buffer reply);

   private:
    ReplyCache& m_cache;
    const Key m_key;
    std::shared_ptr<Call> m_served;  // by this turn, until it is over
    std::shared_ptr<const Reply> m_reply;
  };

  ReplyCache() : ReplyCache(Limits{}) {}
  explicit ReplyCache(Limits limits) : m_limits(std::move(limits)) {}

 private:
  struct HashOfKey {
    // The checksum is as good as random, and nobody outside can choose it.
    std::size_t operator()(const Key& key) const { return key.checksum ^ key.xid; }
  };
  using Calls = std::unordered_map<Key, std::shared_ptr<Call>, HashOfKey>;

  static std::size_t costOf(const Call& call);
  // Under the lock.
  void dropOldest();
  void dropOutdated();

  const Limits m_limits;
  std::mutex m_lock;  // guards the fields below; innermost
  std::condition_variable m_over;
  Calls m_calls;                                    // those being served and those answered
  std::deque<const Calls::value_type*> m_answered;  // the oldest in front
  std::size_t m_bytes = 0;                          // of their replies
};

}  // namespace nfslib::rpc
