#include "rpc/reply_cache.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace nfslib::rpc {
namespace {

using namespace std::chrono_literals;

memory::const_buffer bytesOf(const std::string& text) { return {text.data(), text.size()}; }

// Serves the call with `reply` unless it was served before; returns what it is answered.
std::string serve(ReplyCache& cache, const ReplyCache::Key& key, const std::string& reply) {
  ReplyCache::Turn turn(cache, key);
  if (const ReplyCache::Reply* known = turn.reply()) {
    return {reinterpret_cast<const char*>(known->data()), known->size()};
  }
  turn.keep(bytesOf(reply));
  return reply;
}

TEST(ReplyCacheTest, TellsCallsApartByEveryPartOfTheirKey) {
  ReplyCache cache;
  const ReplyCache::Key key{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(serve(cache, key, "first"), "first");
  for (const auto member : {&ReplyCache::Key::xid, &ReplyCache::Key::program,
                            &ReplyCache::Key::version, &ReplyCache::Key::procedure}) {
    ReplyCache::Key other = key;
    ++(other.*member);
    EXPECT_EQ(serve(cache, other, "other"), "other");
  }
  EXPECT_EQ(serve(cache, {2, 2, 3, 4, 5, 6}, "other"), "other");
  EXPECT_EQ(serve(cache, {1, 2, 3, 4, 5, 7}, "other"), "other");
  EXPECT_EQ(serve(cache, key, "again"), "first");
}

TEST(ReplyCacheTest, DropsTheOldestBeyondItsLimits) {
  ReplyCache::Clock::time_point now{};
  const auto clock = [&] { return now; };
  const auto call = [](unsigned xid) { return ReplyCache::Key{.xid = xid}; };
  const auto isKept = [](ReplyCache& cache, const ReplyCache::Key& key) {
    return ReplyCache::Turn(cache, key).reply() != nullptr;
  };

  ReplyCache few({.replies = 3, .now = clock});
  for (unsigned xid = 0; xid < 5; ++xid) serve(few, call(xid), "x");
  for (unsigned xid = 0; xid < 5; ++xid) EXPECT_EQ(isKept(few, call(xid)), xid >= 2) << xid;

  ReplyCache small({.bytes = 10'000, .now = clock});
  serve(small, call(0), "x");
  for (unsigned xid = 1; xid < 4; ++xid) serve(small, call(xid), std::string(4000, 'x'));
  for (unsigned xid = 0; xid < 4; ++xid) EXPECT_EQ(isKept(small, call(xid)), xid >= 2) << xid;
  serve(small, call(4), std::string(20'000, 'x'));
  for (unsigned xid = 0; xid < 5; ++xid) EXPECT_FALSE(isKept(small, call(xid))) << xid;
  serve(small, call(5), "x");
  EXPECT_TRUE(isKept(small, call(5)));

  ReplyCache brief({.age = 10s, .now = clock});
  serve(brief, call(0), "x");
  now += 6s;
  serve(brief, call(1), "x");
  now += 4s;
  EXPECT_TRUE(isKept(brief, call(0)));
  now += 1s;
  EXPECT_FALSE(isKept(brief, call(0)));
  EXPECT_TRUE(isKept(brief, call(1)));
}

TEST(ReplyCacheTest, OneOfManyServesAndTheOthersWait) {
  ReplyCache cache;
  for (unsigned xid = 0; xid < 200; ++xid) {
    std::atomic<int> served{0};
    std::vector<std::string> replies(8);
    std::vector<std::thread> threads;
    for (std::string& reply : replies) {
      threads.emplace_back([&] {
        ReplyCache::Turn turn(cache, {.xid = xid});
        if (const auto* known = turn.reply()) {
          reply.assign(reinterpret_cast<const char*>(known->data()), known->size());
          return;
        }
        ++served;
        std::this_thread::yield();
        turn.keep(bytesOf(reply = "served"));
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(served, 1);
    EXPECT_THAT(replies, ::testing::Each("served"));
  }
}

TEST(ReplyCacheTest, ACallThatWasGivenUpIsServedByTheNext) {
  ReplyCache cache;
  std::optional<ReplyCache::Turn> first(std::in_place, cache, ReplyCache::Key{});
  ASSERT_EQ(first->reply(), nullptr);
  std::string second;
  std::thread waiting([&] { second = serve(cache, {}, "second"); });
  std::this_thread::sleep_for(10ms);
  first.reset();
  waiting.join();
  EXPECT_EQ(second, "second");
  EXPECT_EQ(serve(cache, {}, "third"), "second");
}

}  // namespace
}  // namespace nfslib::rpc
