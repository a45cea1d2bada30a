#include "common/statistics.h"

#include "common/log.h"

#include <algorithm>
#include <bit>
#include <exception>
#include <memory>
#include <mutex>
#include <numeric>
#include <utility>
#include <vector>

namespace nfslib {

std::uint64_t NfsServiceTimes::count() const {
  return std::accumulate(buckets.begin(), buckets.end(), std::uint64_t{0});
}

std::chrono::nanoseconds NfsServiceTimes::quantile(double share) const {
  // The calls are taken to lie evenly within their bucket.
  double wanted = std::clamp(share, 0.0, 1.0) * static_cast<double>(count());
  std::chrono::nanoseconds lower{0};
  for (std::size_t i = 0; i < kBuckets; ++i) {
    const auto calls = static_cast<double>(buckets[i]);
    if (calls > 0 && wanted <= calls) {
      if (i + 1 == kBuckets) break;
      const auto width = static_cast<double>((upperBound(i) - lower).count());
      return lower + std::chrono::nanoseconds(static_cast<std::int64_t>(width * wanted / calls));
    }
    wanted -= calls;
    if (i + 1 < kBuckets) lower = upperBound(i);
  }
  return count() == 0 ? std::chrono::nanoseconds(0) : lower;
}

}  // namespace nfslib

namespace nfslib::statistics {

constinit thread_local ThreadCounts* t_own = nullptr;

namespace {

// The counts of all threads, those that have ended among them.
class Registry {
 public:
  ThreadCounts& take() {
    const std::lock_guard lock(m_lock);
    if (m_free.empty()) {
      m_free.reserve(m_all.size() + 1);  // giving back must not fail
      return *m_all.emplace_back(std::make_unique<ThreadCounts>());
    }
    ThreadCounts& counts = *m_free.back();
    m_free.pop_back();
    return counts;
  }
  void giveBack(ThreadCounts& counts) {
    const std::lock_guard lock(m_lock);
    m_free.push_back(&counts);
  }
  template <class Visit>
  void forEach(const Visit& visit) const {
    const std::lock_guard lock(m_lock);
    for (const auto& counts : m_all) visit(std::as_const(*counts));
  }

 private:
  mutable std::mutex m_lock;  // guards the two fields below
  std::vector<std::unique_ptr<ThreadCounts>> m_all;
  std::vector<ThreadCounts*> m_free;  // of threads that have ended
};

// Never destroyed: a thread may still serve a call while the process ends.
Registry& registry() {
  static Registry& kept = *std::make_unique<Registry>().release();
  return kept;
}

// Gives the counts back when the thread ends.
struct Loan {
  Loan() { t_own = &registry().take(); }
  ~Loan() { registry().giveBack(*std::exchange(t_own, nullptr)); }
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;
};

struct Observer {
  std::mutex lock;  // guards the pointer
  std::shared_ptr<const NfsConnectionObserver> tell;
};
Observer& observer() {
  static Observer& kept = *std::make_unique<Observer>().release();
  return kept;
}

}  // namespace

std::size_t bucketOf(std::uint64_t nanoseconds) {
  const std::uint64_t beyond = nanoseconds == 0 ? 0 : nanoseconds - 1;  // bounds are inclusive
  const auto bucket = static_cast<std::size_t>(std::bit_width(beyond >> 10U));
  return std::min(bucket, NfsServiceTimes::kBuckets - 1);
}

ThreadCounts::~ThreadCounts() {
  for (auto& table : rows) {
    for (auto& row : table) const std::unique_ptr<RowCounts> gone(row.load());
  }
}

RowCounts& ThreadCounts::make(std::atomic<RowCounts*>& place) {
  place.store(std::make_unique<RowCounts>().release(), std::memory_order_release);
  return *place.load(std::memory_order_relaxed);
}

ThreadCounts& takeOwn() {
  static thread_local const Loan loan;
  // Behind the end of the loan a last count may come, of what the thread destroys later.
  if (t_own == nullptr) t_own = &registry().take();
  return *t_own;
}

void CountedCall::keepTime() {
  const std::chrono::nanoseconds time = std::chrono::steady_clock::now() - m_start;
  const auto nanoseconds = static_cast<std::uint64_t>(time.count());
  m_counts.nanoseconds.add(nanoseconds);
  m_counts.buckets[bucketOf(nanoseconds)].add(1);
}

std::uint64_t total(Counter counter) {
  std::uint64_t sum = 0;
  registry().forEach([&](const ThreadCounts& counts) {
    sum += counts.counters[static_cast<std::size_t>(counter)].get();
  });
  return sum;
}

NfsServerStatistics::Cache total(Cache cache) {
  NfsServerStatistics::Cache sum;
  registry().forEach([&](const ThreadCounts& counts) {
    sum.hits += counts.hits[static_cast<std::size_t>(cache)].get();
    sum.misses += counts.misses[static_cast<std::size_t>(cache)].get();
  });
  return sum;
}

NfsServerStatistics::Procedure total(Row row) {
  NfsServerStatistics::Procedure sum;
  sum.number = row.number;
  registry().forEach([&](const ThreadCounts& all) {
    const RowCounts* counts =
        all.rows[static_cast<std::size_t>(row.table)][row.number].load(std::memory_order_acquire);
    if (counts == nullptr) return;
    // A call is counted before it can fail or be timed.
    sum.errors += counts->errors.get();
    sum.serviceTimes.sum += std::chrono::nanoseconds(counts->nanoseconds.get());
    for (std::size_t i = 0; i < counts->buckets.size(); ++i) {
      sum.serviceTimes.buckets[i] += counts->buckets[i].get();
    }
    sum.calls += counts->calls.get();
  });
  return sum;
}

void setObserver(NfsConnectionObserver tell) {
  auto fresh = tell ? std::make_shared<const NfsConnectionObserver>(std::move(tell)) : nullptr;
  Observer& current = observer();
  const std::lock_guard lock(current.lock);
  current.tell.swap(fresh);
}

void tell(const NfsConnection& connection) {
  Observer& current = observer();
  std::shared_ptr<const NfsConnectionObserver> tells;
  {
    const std::lock_guard lock(current.lock);
    tells = current.tell;
  }
  if (!tells) return;
  try {
    (*tells)(connection);
  } catch (...) {
    log().err("The observer of connections failed.");
  }
}

}  // namespace nfslib::statistics
