#include "nfs4/state_table.h"

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

// What the table of open files and locks bears.

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NFSLIB_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define NFSLIB_TEST_SANITIZED 1
#endif
#endif

namespace nfslib::nfs4 {
namespace {

using nfs::OperationResult;

constexpr StateTable::FileKey kFile{1, 1};
constexpr unsigned kBoth = 3;

StateOwner ownerNamed(std::size_t number, std::uint64_t client = 1) {
  return {client, "owner " + std::to_string(number)};
}
ByteRange bytesAt(std::size_t place) { return {10 * place, 10 * place + 4}; }

class StateTableTest : public ::testing::Test {
 protected:
  FsObjectStateId open(const StateTable::FileKey& file, const StateOwner& owner) {
    StateTable::Opened opened;
    EXPECT_EQ(table.open(file, owner, {kBoth, 0}, {}, opened), OperationResult::OK);
    return opened.id;
  }
  OperationResult lock(const FsObjectStateId& opened, const StateOwner& owner,
                       const StateTable::RangeLock& wanted) {
    return table.lock({opened, owner.clientId, kFile}, owner, wanted, locks, denied);
  }

  StateTable table;
  FsObjectStateId locks;  // that were last set
  LockDenied denied;
};

// Runs `work` for 0, 1, ... and holds the mean time against what one may take. The limit is more
// than a hundred times what is measured, so that a busy machine passes; a walk over all that is
// locked would still not.
void expectQuick(const char* what, std::size_t times,
                 const std::function<void(std::size_t)>& work) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  for (std::size_t i = 0; i < times; ++i) work(i);
  const std::chrono::duration<double, std::milli> taken = Clock::now() - start;
  const double mean = taken.count() / static_cast<double>(times);
  ::testing::Test::RecordProperty(what, std::to_string(1000 * mean) + " us");
  EXPECT_LT(mean, 1.0) << what << ", ms";
}

#ifdef NFSLIB_TEST_SANITIZED
constexpr std::size_t kMany = 10'000;  // everything takes ten times as long
#else
constexpr std::size_t kMany = 100'000;
#endif

TEST_F(StateTableTest, AHundredThousandLocksOfOneOwnerTakeNoLonger) {
  const FsObjectStateId opened = open(kFile, ownerNamed(0));
  const FsObjectStateId another = open(kFile, ownerNamed(0, 2));
  expectQuick("lock", kMany, [&](std::size_t i) {
    // Every other one first, so that they do not come in order.
    const std::size_t place = 2 * i < kMany ? 2 * i : 2 * i - kMany + 1;
    ASSERT_EQ(lock(opened, ownerNamed(0), {bytesAt(place), place % 3 == 0}), OperationResult::OK);
  });
  const FsObjectStateId all{0, locks.other};
  const StateTable::Reference reference{all, 1, kFile};
  expectQuick("test", kMany / 10, [&](std::size_t i) {
    const StateTable::RangeLock between{{10 * i + 5, 10 * i + 9}, true};
    ASSERT_EQ(table.testLock(kFile, ownerNamed(0, 2), between, denied), OperationResult::OK);
    const StateTable::RangeLock across{{10 * i + 5, UINT64_MAX}, true};
    ASSERT_EQ(table.testLock(kFile, ownerNamed(0, 2), across, denied), OperationResult::Denied);
  });
  // One lock of somebody else stands behind all of its own.
  ASSERT_EQ(lock(another, ownerNamed(0, 2), {{20 * kMany, 20 * kMany}, true}), OperationResult::OK);
  expectQuick("lock past its own", kMany / 10, [&](std::size_t) {
    ASSERT_EQ(lock(opened, ownerNamed(0), {{0, UINT64_MAX}, false}), OperationResult::Denied);
  });
  expectQuick("unlock", kMany / 10, [&](std::size_t i) {
    FsObjectStateId unlocked;
    ASSERT_EQ(table.unlock(reference, {10 * i + 2, 10 * i + 2}, unlocked), OperationResult::OK);
  });
  FsObjectStateId closed;
  EXPECT_EQ(table.close({opened, 1, kFile}, closed), OperationResult::OK);
  EXPECT_EQ(table.test(all, 1), OperationResult::BadStateId);
}

TEST_F(StateTableTest, AHundredThousandOwnersThatReadTheSameTakeNoLonger) {
  const FsObjectStateId opened = open(kFile, ownerNamed(0));
  std::vector<FsObjectStateId> ids;
  expectQuick("lock", kMany, [&](std::size_t i) {
    // All of them overlap.
    ASSERT_EQ(lock(opened, ownerNamed(i), {{i, UINT64_MAX}, false}), OperationResult::OK);
    ids.push_back(locks);
  });
  expectQuick("conflict", kMany / 10, [&](std::size_t i) {
    ASSERT_EQ(lock(opened, ownerNamed(i), {{2 * kMany, 2 * kMany}, true}), OperationResult::Denied);
    ASSERT_EQ(table.testLock(kFile, ownerNamed(0), {{0, 0}, true}, denied), OperationResult::OK);
  });
  expectQuick("unlock", kMany - 1, [&](std::size_t i) {
    FsObjectStateId unlocked;
    ASSERT_EQ(table.unlock({ids[i], 1, kFile}, {0, UINT64_MAX}, unlocked), OperationResult::OK);
    ASSERT_EQ(table.free(unlocked, 1), OperationResult::OK);
  });
  EXPECT_EQ(table.testLock(kFile, ownerNamed(0), {{0, UINT64_MAX}, true}, denied),
            OperationResult::Denied);
  EXPECT_EQ(denied.owner, ownerNamed(kMany - 1));
}

TEST_F(StateTableTest, TenThousandOpenFilesTakeNoLonger) {
  constexpr std::size_t kFiles = 10'000;
  std::vector<FsObjectStateId> ids(kFiles);
  expectQuick("open", kFiles, [&](std::size_t i) { ids[i] = open({1, i}, ownerNamed(i % 7)); });
  expectQuick("open the same", kFiles, [&](std::size_t i) { open(kFile, ownerNamed(10 + i)); });
  expectQuick("share", kFiles, [&](std::size_t i) {
    StateTable::Opened opened;
    ASSERT_EQ(table.open(kFile, ownerNamed(i, 2), {kBoth, kBoth}, {}, opened),
              OperationResult::ShareDenied);
    ASSERT_TRUE(table.isFree(kFile, kBoth));
  });
  expectQuick("close", kFiles, [&](std::size_t i) {
    FsObjectStateId closed;
    ASSERT_EQ(table.close({ids[i], 1, {1, i}}, closed), OperationResult::OK);
  });
  table.dropFileSystem(1);
  EXPECT_FALSE(table.hasState(1));
}

TEST_F(StateTableTest, NobodyLocksOrOpensWithoutEnd) {
  const FsObjectStateId opened = open(kFile, ownerNamed(0));
  const FsObjectStateId foreign = open(kFile, ownerNamed(0, 2));
  std::size_t count = 0;
  while (count < 1'000'000 &&
         lock(opened, ownerNamed(0), {bytesAt(count), false}) == OperationResult::OK) {
    ++count;
  }
  EXPECT_GE(count, kMany);
  EXPECT_EQ(lock(opened, ownerNamed(0), {bytesAt(count), false}), OperationResult::Resource);
  FsObjectStateId id;
  const StateTable::Reference reference{{0, locks.other}, 1, kFile};
  // It must not fall apart further, but can be given up.
  EXPECT_EQ(table.unlock(reference, {1, 1}, id), OperationResult::Resource);
  EXPECT_EQ(lock(foreign, ownerNamed(0, 2), {bytesAt(count), false}), OperationResult::OK);
  EXPECT_EQ(table.unlock(reference, bytesAt(0), id), OperationResult::OK);
  EXPECT_EQ(table.unlock(reference, bytesAt(1), id), OperationResult::OK);
  EXPECT_EQ(lock(opened, ownerNamed(0), {bytesAt(count), false}), OperationResult::OK);

  count = 0;
  StateTable::Opened more;
  while (count < 1'000'000 &&
         table.open({2, count}, ownerNamed(1, 3), {kBoth, 0}, {}, more) == OperationResult::OK) {
    ++count;
  }
  EXPECT_GE(count, 10'000U);
  EXPECT_EQ(table.open({2, count}, ownerNamed(1, 3), {kBoth, 0}, {}, more),
            OperationResult::Resource);
  EXPECT_EQ(table.open({2, count}, ownerNamed(1, 4), {kBoth, 0}, {}, more), OperationResult::OK);
  // Who never opened anything has nothing.
  EXPECT_FALSE(table.hasState(5));
}

TEST(OwnerSequences, ForgetsThoseThatActedLongAgo) {
  OwnerSequences sequences;
  const auto act = [&](const OwnerSequences::Name& name) {
    const auto record = sequences.take(name);
    const bool wasKnown = record->isUsed;
    record->isUsed = true;
    sequences.giveBack(name, *record);
    return wasKnown;
  };
  using Kind = OwnerSequences::Kind;
  const OwnerSequences::Name first{Kind::Open, ownerNamed(0)},
      foreign{Kind::Open, ownerNamed(0, 2)};
  EXPECT_FALSE(act(first));
  EXPECT_TRUE(act(first));
  EXPECT_FALSE(act({Kind::Lock, ownerNamed(0)}));
  EXPECT_FALSE(act(foreign));
  for (std::size_t i = 1; i < 10'000; ++i) act({Kind::Open, ownerNamed(i)});
  EXPECT_FALSE(act(first));
  EXPECT_TRUE(act(foreign));
  sequences.dropClient(2);
  EXPECT_FALSE(act(foreign));
  // One that never did anything that counts is not kept.
  const OwnerSequences::Name idle{Kind::Lock, ownerNamed(0, 3)};
  sequences.giveBack(idle, *sequences.take(idle));
  EXPECT_FALSE(act(idle));
}

TEST(OwnerSequences, ArriveOneByOne) {
  OwnerSequences sequences;
  const OwnerSequences::Name name{OwnerSequences::Kind::Open, ownerNamed(0)};
  constexpr unsigned kTimes = 2000;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (unsigned n = 0; n < kTimes; ++n) {
        const auto record = sequences.take(name);
        record->isUsed = true;
        ++record->sequenceId;
        sequences.giveBack(name, *record);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(sequences.take(name)->sequenceId, 3 * kTimes);
}

}  // namespace
}  // namespace nfslib::nfs4
