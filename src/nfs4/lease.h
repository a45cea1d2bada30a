#pragma once

#include <atomic>
#include <chrono>

namespace nfslib::nfs4 {

// When a client was last heard of. A client shares it with its sessions, so that SEQUENCE renews it
// without looking for the client. Thread-safe; orders nothing.
class Lease {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Lease(Clock::time_point now) { renew(now); }

  void renew(Clock::time_point now) {
    m_heard.store(now.time_since_epoch().count(), std::memory_order_relaxed);
  }
  Clock::time_point heard() const {
    return Clock::time_point(Clock::duration(m_heard.load(std::memory_order_relaxed)));
  }

 private:
  std::atomic<Clock::rep> m_heard;
};

}  // namespace nfslib::nfs4
