#pragma once

#include <system_error>

#include <pthread.h>

namespace nfslib::hosts {

// A shared mutex, for std::shared_lock and std::unique_lock, in which a waiting writer goes before
// readers that come later. std::shared_mutex lets readers pass, so a few busy ones can keep a
// rename waiting for seconds. A thread must not take it shared twice.
class WriterFirstMutex {
 public:
  WriterFirstMutex() {
    pthread_rwlockattr_t attributes;
    check(::pthread_rwlockattr_init(&attributes));
    ::pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    const int error = ::pthread_rwlock_init(&m_lock, &attributes);
    ::pthread_rwlockattr_destroy(&attributes);
    check(error);
  }
  WriterFirstMutex(const WriterFirstMutex&) = delete;
  WriterFirstMutex& operator=(const WriterFirstMutex&) = delete;
  ~WriterFirstMutex() { ::pthread_rwlock_destroy(&m_lock); }

  void lock() { check(::pthread_rwlock_wrlock(&m_lock)); }
  void unlock() { ::pthread_rwlock_unlock(&m_lock); }
  void lock_shared() { check(::pthread_rwlock_rdlock(&m_lock)); }
  void unlock_shared() { ::pthread_rwlock_unlock(&m_lock); }

 private:
  static void check(int error) {
    if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_rwlock");
  }

  pthread_rwlock_t m_lock;
};

}  // namespace nfslib::hosts
