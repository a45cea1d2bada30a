#pragma once

#include <nfslib/nfs_server_statistics.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

// What the server counts, for the whole process. Each thread counts in numbers of its own, which
// nobody else writes, so counting takes no lock and shares no cache line; whoever wants to know
// adds them up. The numbers of a thread that ends are taken over by the next one that starts.
//
// Thread-safe. Locks: one of the registry of threads, one of the observer. Neither is taken by a
// call, but for the first of its thread; both are innermost.
namespace nfslib::statistics {

enum class Counter : unsigned {
  BytesRead,
  BytesWritten,
  BytesReceived,
  BytesSent,
  ConnectionsAccepted,
  ConnectionsClosed,
  RefusedCalls,
  InvalidCalls,
};

enum class Cache : unsigned { Attributes, Directories, Files, Listings, Replies };

// The tables of procedures that are counted apart.
enum class Table : unsigned {
  Other,  // of programs that nobody asks about
  Portmap2,
  Portmap3,
  Portmap4,
  Mount1,
  Mount2,
  Mount3,
  Nfs3,
  Nfs4,
  Nfs4Operations,
};

constexpr std::size_t kCounters = static_cast<std::size_t>(Counter::InvalidCalls) + 1;
constexpr std::size_t kCaches = static_cast<std::size_t>(Cache::Replies) + 1;
constexpr std::size_t kTables = static_cast<std::size_t>(Table::Nfs4Operations) + 1;
// Of each table; what has a higher number is counted together, as the last one.
constexpr std::size_t kRows = 64;

// One procedure. The number comes from the wire and may be any.
struct Row {
  Table table = Table::Other;
  unsigned number = 0;
};

// A number that its own thread alone adds to, which saves the price of an atomic addition.
class OwnCount {
 public:
  void add(std::uint64_t n) { m_value.store(get() + n, std::memory_order_relaxed); }
  std::uint64_t get() const { return m_value.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> m_value{0};
};

// The calls of one procedure in one thread.
struct alignas(64) RowCounts {
  OwnCount calls;
  OwnCount errors;
  OwnCount nanoseconds;
  std::array<OwnCount, NfsServiceTimes::kBuckets> buckets;
};

// Everything that one thread counts.
struct alignas(64) ThreadCounts {
  ThreadCounts() = default;
  ~ThreadCounts();
  ThreadCounts(const ThreadCounts&) = delete;
  ThreadCounts& operator=(const ThreadCounts&) = delete;

  RowCounts& of(Row row) {
    auto& place = placeOf(row);
    RowCounts* counts = place.load(std::memory_order_relaxed);
    return counts != nullptr ? *counts : make(place);
  }

  std::array<OwnCount, kCounters> counters;
  std::array<OwnCount, kCaches> hits;
  std::array<OwnCount, kCaches> misses;
  // Made with the first call, since a thread sees few procedures.
  std::array<std::array<std::atomic<RowCounts*>, kRows>, kTables> rows{};

 private:
  std::atomic<RowCounts*>& placeOf(Row row) {
    const auto number = row.number < kRows ? row.number : kRows - 1;
    return rows[static_cast<std::size_t>(row.table)][number];
  }
  static RowCounts& make(std::atomic<RowCounts*>& place);
};

// Those of this thread, once there are any. Found without a call, which each of a library's
// thread-local variables takes otherwise; the loader has room for a few of these in a library that
// is loaded late.
extern constinit thread_local ThreadCounts* t_own __attribute__((tls_model("initial-exec")));
ThreadCounts& takeOwn();
inline ThreadCounts& own() { return t_own != nullptr ? *t_own : takeOwn(); }

inline void count(Counter counter, std::uint64_t n = 1) {
  own().counters[static_cast<std::size_t>(counter)].add(n);
}
inline void countLookUp(Cache cache, bool isHit) {
  ThreadCounts& counts = own();
  (isHit ? counts.hits : counts.misses)[static_cast<std::size_t>(cache)].add(1);
}

// Which bucket of NfsServiceTimes a time belongs to.
std::size_t bucketOf(std::uint64_t nanoseconds);

// One call while it is served. It counts as failed unless it is said to have succeeded, whatever
// exception ends it.
class CountedCall {
 public:
  // Reading the clock twice costs as much as all the rest: each sixteenth call is timed.
  static constexpr std::uint64_t kTimedOneIn = 16;

  explicit CountedCall(Row row)
      : m_counts(own().of(row)), m_isTimed(m_counts.calls.get() % kTimedOneIn == 0) {
    m_counts.calls.add(1);
    if (m_isTimed) m_start = std::chrono::steady_clock::now();
  }
  ~CountedCall() {
    if (m_hasFailed) m_counts.errors.add(1);
    if (m_isTimed) keepTime();
  }
  CountedCall(const CountedCall&) = delete;
  CountedCall& operator=(const CountedCall&) = delete;

  void endedWith(bool isOk) { m_hasFailed = !isOk; }

 private:
  void keepTime();

  RowCounts& m_counts;
  const bool m_isTimed;
  bool m_hasFailed = true;
  std::chrono::steady_clock::time_point m_start;
};

// ---- What all threads have counted

std::uint64_t total(Counter counter);
NfsServerStatistics::Cache total(Cache cache);
// Calls, errors and times of a row; the caller names it.
NfsServerStatistics::Procedure total(Row row);

// ---- Connections

// Replaces the observer; empty for none. It may be called once more by a thread that has it
// already.
void setObserver(NfsConnectionObserver observer);
void tell(const NfsConnection& connection);

}  // namespace nfslib::statistics
