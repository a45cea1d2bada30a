#include "common/statistics.h"

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace nfslib::testing {
namespace {

using namespace statistics;
using std::chrono::nanoseconds;

constexpr Row kFailing{Table::Other, 3}, kMany{Table::Other, 4};

TEST(StatisticsTest, AThreadLosesNothingAndWaitsForNobody) {
  constexpr unsigned kThreads = 8, kRounds = 3, kCalls = 1000;
  const auto before = total(kMany);
  const std::uint64_t sentBefore = total(Counter::BytesSent);
  std::atomic<bool> isOver{false};
  std::thread reader([&] {  // sums never go down while others count
    std::uint64_t last = 0, lastCalls = 0;
    while (!isOver) {
      const std::uint64_t now = total(Counter::BytesSent);
      EXPECT_GE(now, last);
      last = now;
      const std::uint64_t calls = total(kMany).calls;
      EXPECT_GE(calls, lastCalls);
      lastCalls = calls;
    }
  });
  for (unsigned round = 0; round < kRounds; ++round) {  // the later ones take over what is left
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i) {
      threads.emplace_back([] {
        for (unsigned call = 0; call < kCalls; ++call) {
          CountedCall counted(kMany);
          counted.endedWith(call % 10 != 0);
          count(Counter::BytesSent, 7);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  isOver = true;
  reader.join();
  const auto after = total(kMany);
  EXPECT_EQ(after.calls - before.calls, kThreads * kRounds * kCalls);
  EXPECT_EQ(after.errors - before.errors, kThreads * kRounds * kCalls / 10);
  EXPECT_EQ(total(Counter::BytesSent) - sentBefore, kThreads * kRounds * kCalls * 7);
  const std::uint64_t timed = after.serviceTimes.count() - before.serviceTimes.count();
  EXPECT_GE(timed, kThreads * kRounds * kCalls / CountedCall::kTimedOneIn);
  EXPECT_LE(timed, kThreads * kRounds * (kCalls / CountedCall::kTimedOneIn + 1));
}

TEST(StatisticsTest, ACallThatThrowsHasFailed) {
  const auto before = total(kFailing);
  EXPECT_THROW(
      {
        const CountedCall counted(kFailing);
        throw std::runtime_error("no");
      },
      std::runtime_error);
  EXPECT_EQ(total(kFailing).calls - before.calls, 1U);
  EXPECT_EQ(total(kFailing).errors - before.errors, 1U);
}

TEST(StatisticsTest, ATimeFallsIntoTheBucketThatItFits) {
  EXPECT_EQ(bucketOf(0), 0U);
  for (std::size_t i = 0; i + 1 < NfsServiceTimes::kBuckets; ++i) {
    const auto bound = static_cast<std::uint64_t>(NfsServiceTimes::upperBound(i).count());
    EXPECT_EQ(bucketOf(bound), i);
    EXPECT_EQ(bucketOf(bound + 1), i + 1);
  }
  EXPECT_EQ(bucketOf(~std::uint64_t{0}), NfsServiceTimes::kBuckets - 1);
}

TEST(StatisticsTest, AQuantileLiesInTheBucketOfItsCall) {
  NfsServiceTimes times;
  EXPECT_EQ(times.quantile(0.5), nanoseconds(0));
  times.buckets[2] = 98;  // above 2,048 and up to 4,096 ns
  times.buckets[5] = 2;   // above 16,384 and up to 32,768 ns
  EXPECT_EQ(times.count(), 100U);
  EXPECT_EQ(times.quantile(0), nanoseconds(2048));
  EXPECT_EQ(times.quantile(0.49), nanoseconds(3072));
  EXPECT_EQ(times.quantile(0.98), nanoseconds(4096));
  EXPECT_EQ(times.quantile(0.99), nanoseconds(24'576));
  EXPECT_EQ(times.quantile(1), nanoseconds(32'768));
  times.buckets.back() = 1000;
  EXPECT_EQ(times.quantile(0.99), NfsServiceTimes::upperBound(NfsServiceTimes::kBuckets - 2));
}

}  // namespace
}  // namespace nfslib::testing
