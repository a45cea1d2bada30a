#include "support/nfs4_states.h"

#include <chrono>
#include <set>

// Byte-range locks, and the order of owners' requests in minor version 0.

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;

class LocksTest : public StatesTest {
 protected:
  void SetUp() override {
    StatesTest::SetUp();
    f = open(one, "/d/f");
  }
  Compound freeing(const FsObjectStateId& id) { return Compound().add(45U, id); }

  FsObjectStateId f;  // of `one`, for reading and writing
};
INSTANTIATE_TEST_SUITE_P(Both, LocksTest, ::testing::Values(0U, 1U), minorVersionName);

TEST_P(LocksTest, LocksStandInTheWayOfOthersOnly) {
  Client two = anotherClient("two");
  const FsObjectStateId other = open(two, "/d/f");
  const Answer locked = lock(one, "/d/f", f, "a", kWriteLock, {10, 10});
  ASSERT_EQ(locked.status, kOk);
  const FsObjectStateId a = stateIdIn(locked);
  EXPECT_EQ(a.sequenceId, 1U);
  EXPECT_NE(a.other, f.other);

  // Of another owner of the same client, and of another client whose owner has the same name.
  const std::string denied = denial({10, 10}, kWriteLock, one, "a");
  for (const unsigned type : {kReadLock, kWriteLock, kReadLockWaiting, kWriteLockWaiting}) {
    const Answer refused = lock(one, "/d/f", f, "b", type, {0, kToTheEnd});
    EXPECT_EQ(refused.status, kDenied) << type;
    EXPECT_EQ(refused.body(), denied) << type;
    EXPECT_EQ(lock(two, "/d/f", other, "a", type, {19, 1}).body(), denied) << type;
    EXPECT_EQ(testLock(two, "/d/f", "a", type, {0, 11}).body(), denied) << type;
    EXPECT_EQ(testLock(one, "/d/f", "a", type, {0, 11}).status, kOk) << type;
  }
  EXPECT_EQ(testLock(two, "/d/f", "a", kWriteLock, {0, 10}).status, kOk);
  EXPECT_EQ(testLock(two, "/d/f", "a", kWriteLock, {20, kToTheEnd}).status, kOk);
  EXPECT_EQ(testLock(two, "/d/g", "a", kWriteLock, {0, kToTheEnd}).status, kOk);

  // Readers go together; to write, a reader has to be alone.
  const Answer weaker = lockOn(one, "/d/f", a, "a", kReadLock, {10, 10});
  EXPECT_EQ(stateIdIn(weaker), (FsObjectStateId{2, a.other}));
  ASSERT_EQ(lock(two, "/d/f", other, "a", kReadLock, {15, kToTheEnd}).status, kOk);
  const Answer stronger = lockOn(one, "/d/f", stateIdIn(weaker), "a", kWriteLock, {10, 10});
  EXPECT_EQ(stronger.body(), denial({15, kToTheEnd}, kReadLock, two, "a"));
  EXPECT_EQ(testLock(two, "/d/f", "b", kWriteLock, {12, 1}).body(),
            denial({10, 10}, kReadLock, one, "a"));

  // What is given up in the middle leaves two; what touches is joined.
  EXPECT_EQ(unlock(one, "/d/f", stateIdIn(weaker), "a", {12, 2}).status, kOk);
  EXPECT_EQ(testLock(two, "/d/f", "b", kWriteLock, {12, 2}).status, kOk);
  EXPECT_EQ(testLock(two, "/d/f", "b", kWriteLock, {0, 14}).body(),
            denial({10, 2}, kReadLock, one, "a"));
  EXPECT_EQ(lockOn(one, "/d/f", {3, a.other}, "a", kReadLock, {12, 2}).status, kOk);
  EXPECT_EQ(testLock(two, "/d/f", "b", kWriteLock, {13, 1}).body(),
            denial({10, 10}, kReadLock, one, "a"));

  // CLOSE takes the locks along.
  EXPECT_EQ(close(one, "/d/f", f).status, kOk);
  EXPECT_EQ(unlock(one, "/d/f", {4, a.other}, "a", {0, kToTheEnd}).status, kBadStateId);
  EXPECT_EQ(testLock(two, "/d/f", "a", kWriteLock, {0, kToTheEnd}).status, kOk);
}

TEST_P(LocksTest, WhatCannotBeLocked) {
  struct Case {
    Range range;
    unsigned type, status;
  };
  for (const auto& [range, type, expected] : {
           Case{{0, 0}, kReadLock, kInvalid},
           Case{{1, UINT64_MAX - 1}, kReadLock, kOk},
           Case{{2, UINT64_MAX - 1}, kReadLock, kInvalid},
           Case{{UINT64_MAX, 1}, kReadLock, kInvalid},
           Case{{UINT64_MAX, kToTheEnd}, kReadLock, kOk},
           Case{{0, 1}, 0, kInvalid},
           Case{{0, 1}, 5, kInvalid},
       }) {
    EXPECT_EQ(testLock(one, "/d/f", "a", type, range).status, expected) << range.offset;
    EXPECT_EQ(lock(one, "/d/f", f, "a", type, range).status, expected) << range.offset;
  }
  // The two that could be set are one.
  EXPECT_EQ(testLock(one, "/d/f", "b", kWriteLock, {UINT64_MAX, kToTheEnd}).body(),
            denial({1, kToTheEnd}, kReadLock, one, "a"));
  EXPECT_EQ(testLock(one, "/d", "a", kReadLock, {0, 1}).status, kIsDirectory);
  EXPECT_EQ(testLock(one, "/d/f", std::string(1025, 'x'), kReadLock, {0, 1}).status, kBadXdr);
  EXPECT_EQ(
      run(one, Compound().add(op::kLockT, kReadLock, std::uint64_t{0}, kToTheEnd, one.id, "a"s))
          .status,
      kNoFileHandle);

  // Only what the open lets its owner do; and there is nothing from before to claim.
  const FsObjectStateId reading = open(one, "/d/g", "owner", kReadAccess);
  EXPECT_EQ(lock(one, "/d/g", reading, "c", kWriteLock, {0, 1}).status, kOpenMode);
  const Answer locked = lock(one, "/d/g", reading, "c", kReadLock, {0, 1});
  ASSERT_EQ(locked.status, kOk);
  const FsObjectStateId c = stateIdIn(locked);
  EXPECT_EQ(lockOn(one, "/d/g", c, "c", kWriteLock, {0, 1}).status, kOpenMode);
  EXPECT_EQ(inTurn(one, {"lock c"},
                   at("/d/g").add(op::kLock, kReadLock, true, std::uint64_t{0}, kToTheEnd, false, c,
                                  one.sequences["lock c"]))
                .status,
            kNoGrace);
  // Stateids: of another file, of locks for an open and the other way, and those that stand for
  // nothing.
  EXPECT_EQ(lock(one, "/d/f", reading, "c", kReadLock, {0, 1}).status, kBadStateId);
  EXPECT_EQ(lock(one, "/d/g", c, "c", kReadLock, {0, 1}).status, kBadStateId);
  EXPECT_EQ(lockOn(one, "/d/g", reading, "c", kReadLock, {0, 1}).status, kBadStateId);
  EXPECT_EQ(unlock(one, "/d/g", reading, "c", {0, 1}).status, kBadStateId);
  EXPECT_EQ(close(one, "/d/g", c).status, kBadStateId);
  EXPECT_EQ(lock(one, "/d/g", kNoState, "c", kReadLock, {0, 1}).status, kBadStateId);
  FsObjectStateId foreign = c;
  foreign.other.bytes[0] ^= std::byte{1};
  EXPECT_EQ(lockOn(one, "/d/g", foreign, "c", kReadLock, {0, 1}).status,
            minorVersion == 0 ? kStaleStateId : kBadStateId);
}

TEST_P(LocksTest, AStateIdOfLocksIsAsGoodAsThatOfItsOpen) {
  const FsObjectStateId a = stateIdIn(lock(one, "/d/f", f, "a", kReadLock, {0, 1}));
  EXPECT_EQ(read("/d/f", a).body(), wire(1U, "content"s));
  EXPECT_EQ(write("/d/f", a, "C"), kOk);
  EXPECT_EQ(run(at("/d/f").add(op::kSetAttr, a, fattr4(kSize, std::uint64_t{3}))).status, kOk);
  EXPECT_EQ(read("/d/f", a).body(), wire(1U, "Con"s));
  EXPECT_EQ(read("/d/g", a).status, kBadStateId);
  const FsObjectStateId again = stateIdIn(lockOn(one, "/d/f", a, "a", kReadLock, {1, 1}));
  EXPECT_EQ(read("/d/f", a).status, kOldStateId);
  EXPECT_EQ(read("/d/f", {0, a.other}).status, minorVersion == 0 ? kOldStateId : kOk);
  EXPECT_EQ(stateIdIn(narrow(one, "/d/f", f, kReadAccess, 0)), (FsObjectStateId{2, f.other}));
  EXPECT_EQ(write("/d/f", again, "x"), kOpenMode);

  // An owner that holds nothing can be let go of.
  if (minorVersion == 0) {
    const Compound release = Compound().add(39U, one.id, "a"s);
    EXPECT_EQ(status(release), kLocksHeld);
    const FsObjectStateId empty = stateIdIn(unlock(one, "/d/f", again, "a", {0, kToTheEnd}));
    EXPECT_EQ(read("/d/f", empty).status, kOk);
    EXPECT_EQ(status(release), kOk);
    EXPECT_EQ(read("/d/f", empty).status, kBadStateId);
    EXPECT_EQ(status(Compound().add(39U, one.id + 100, "a"s)), kStaleClient);
    one.sequences["lock a"] = 77;  // it is new
  } else {
    Client two = anotherClient("two");
    EXPECT_EQ(status(freeing(again)), kLocksHeld);
    EXPECT_EQ(run(two, freeing(again)).status, kBadStateId);
    const FsObjectStateId empty = stateIdIn(unlock(one, "/d/f", {0, a.other}, "a", {0, kToTheEnd}));
    EXPECT_EQ(run(Compound().add(55U, 3U, f, again, empty)).body(),
              wire(3U, kOldStateId, kOldStateId, kOk));
    EXPECT_THAT(statuses(freeing(empty).add(freeing(empty))), ElementsAre(kOk, kBadStateId));
    // One COMPOUND, by the stateids that it comes by itself.
    const FsObjectStateId current{1, {}};
    EXPECT_THAT(statuses(opening(one, "/d/g")
                             .add(op::kLock, kWriteLock, false, std::uint64_t{0}, kToTheEnd, true,
                                  0U, current, 0U, std::uint64_t{0}, "a"s)
                             .add(op::kRead, current, std::uint64_t{0}, 1U)
                             .add(op::kLockU, kWriteLock, 0U, current, std::uint64_t{0}, kToTheEnd)
                             .add(op::kClose, 0U, current)),
                ElementsAre(kOk, kOk, kOk, kOk, kOk, kBadStateId));
  }
  EXPECT_EQ(lock(one, "/d/f", {2, f.other}, "a", kReadLock, {0, 1}).status, kOk);
}

TEST_P(LocksTest, ASilentClientLosesWhatIsInTheWay) {
  std::set<std::uint64_t> silent;
  nfs4::StateTable& table = service.openFiles();
  table.setSilence([&](std::uint64_t client) { return silent.contains(client); });
  Client two = anotherClient("two");
  const FsObjectStateId a = stateIdIn(lock(one, "/d/f", f, "a", kWriteLock, {0, 1}));
  const FsObjectStateId g = open(one, "/d/g", "owner", kReadAccess, kWriteAccess);
  const FsObjectStateId other = open(two, "/d/f");
  silent.insert(one.id);
  // Nothing is in the way.
  EXPECT_EQ(lock(two, "/d/f", other, "b", kWriteLock, {1, 1}).status, kOk);
  EXPECT_EQ(open(two, "/d/g", "owner", kReadAccess).sequenceId, 1U);
  EXPECT_FALSE(table.wasRevoked(one.id));
  silent = {two.id};
  EXPECT_EQ(testLock(two, "/d/f", "b", kWriteLock, {0, 1}).status, kDenied);

  silent = {one.id};
  EXPECT_EQ(lock(two, "/d/f", other, "b", kWriteLock, {0, 1}).status, kOk);
  EXPECT_TRUE(table.wasRevoked(one.id));
  EXPECT_FALSE(table.hasState(one.id));
  silent.clear();
  for (const auto& [path, id] : {std::pair{"/d/f", f}, {"/d/f", a}, {"/d/g", g}}) {
    EXPECT_EQ(read(path, id).status, kExpired) << path;
  }
  EXPECT_EQ(close(one, "/d/f", f).status, kExpired);
  EXPECT_EQ(lockOn(one, "/d/f", a, "a", kReadLock, {5, 1}).status, kExpired);
  EXPECT_EQ(run(two, at("/d/g").add(op::kWrite, kNoState, std::uint64_t{0}, 2U, "x"s)).status, kOk);
  if (minorVersion == 1) {
    EXPECT_EQ(run(two, at("/d/f").add(op::kClose, 0U, f)).status, kBadStateId);
    EXPECT_EQ(run(Compound().add(55U, 2U, a, g)).body(), wire(2U, kExpired, kExpired));
    EXPECT_THAT(statuses(freeing(a).add(freeing(f))), ElementsAre(kOk, kOk));
    EXPECT_TRUE(table.wasRevoked(one.id));
    EXPECT_THAT(statuses(freeing(g).add(freeing(g))), ElementsAre(kOk, kBadStateId));
    EXPECT_FALSE(table.wasRevoked(one.id));
  }
  // It can begin again.
  EXPECT_EQ(read("/d/f", open(one, "/d/f")).status, kOk);
  table.dropClient(one.id);
  EXPECT_FALSE(table.wasRevoked(one.id));
  EXPECT_EQ(read("/d/f", f).status, kBadStateId);
}

TEST_P(LocksTest, WhoWasSilentIsTold) {
  std::chrono::seconds later{0};
  service.setLeaseClock([&] { return std::chrono::steady_clock::now() + later; });
  Client two = anotherClient("two");
  const FsObjectStateId a = stateIdIn(lock(one, "/d/f", f, "a", kWriteLock, {0, 1}));
  const FsObjectStateId other = open(two, "/d/f");
  // Whatever a client does with what it has, it is heard of.
  for (int i = 0; i < 2; ++i) {
    later += std::chrono::seconds(60);
    EXPECT_EQ(read("/d/f", f).status, kOk);
    EXPECT_EQ(lock(two, "/d/f", other, "b", kWriteLock, {0, 1}).status, kDenied);
  }
  later += std::chrono::seconds(91);
  EXPECT_EQ(lock(two, "/d/f", other, "b", kWriteLock, {0, 1}).status, kOk);

  if (minorVersion == 0) {
    const Compound renewing = Compound().add(30U, one.id);
    EXPECT_EQ(run(one, renewing).status, kExpired);
    EXPECT_EQ(idOf("client"), one.id);
    EXPECT_EQ(run(one, renewing).status, kOk);
    EXPECT_EQ(read("/d/f", f).status, kBadStateId);
  } else {
    const auto flags = [this] {
      const Answer answer = send4(1, Compound().add(op::kSequence, own.id, ++own.sequenceId,
                                                    own.slot, own.slot, own.cached));
      return answer.body().substr(answer.body().size() - 8);
    };
    EXPECT_EQ(flags(), "00000008");  // SEQ4_STATUS_EXPIRED_ALL_STATE_REVOKED
    EXPECT_EQ(read("/d/f", f).status, kExpired);
    EXPECT_THAT(statuses(freeing(a).add(freeing(f))), ElementsAre(kOk, kOk));
    EXPECT_EQ(flags(), "00000000");
  }
}

class OwnersTest : public StatesTest {};
INSTANTIATE_TEST_SUITE_P(Only, OwnersTest, ::testing::Values(0U), minorVersionName);

TEST_P(OwnersTest, ANewOpenOwnerHasToConfirm) {
  const Answer opened = inTurn(one, {"owner"}, opening(one, "/d/f"));
  EXPECT_EQ(flagsIn(opened), kMustConfirm | kLocksSplit);
  const FsObjectStateId first = stateIdIn(opened);
  EXPECT_EQ(read("/d/f", first).status, kBadStateId);
  EXPECT_EQ(close(one, "/d/f", first).status, kBadStateId);
  EXPECT_EQ(lock(one, "/d/f", first, "a", kReadLock, {0, 1}).status, kBadStateId);
  // Who opens again instead begins anew, with any number.
  one.sequences["owner"] = 40;
  const Answer again = inTurn(one, {"owner"}, opening(one, "/d/f"));
  EXPECT_EQ(flagsIn(again), kMustConfirm | kLocksSplit);
  const FsObjectStateId second = stateIdIn(again);
  EXPECT_EQ(run(one, confirming(one, "/d/f", first)).status, kBadStateId);
  EXPECT_EQ(run(one, at("/d/f").add(20U, second, 40U)).status, kBadSequenceId);
  EXPECT_EQ(run(one, confirming(one, "/d/g", second)).status, kBadStateId);
  EXPECT_EQ(inTurn(one, {"owner"}, confirming(one, "/d/f", second)).body(), wire(second));
  EXPECT_EQ(read("/d/f", second).status, kOk);
  EXPECT_EQ(flagsIn(inTurn(one, {"owner"}, opening(one, "/d/g"))), kLocksSplit);
  // Of an OPEN that failed nothing is left to confirm, but the owner is still new.
  EXPECT_EQ(inTurn(one, {"b"}, opening(one, "/d", "b")).status, kIsDirectory);
  EXPECT_EQ(flagsIn(inTurn(one, {"b"}, opening(one, "/d/f", "b"))), kMustConfirm | kLocksSplit);
}

TEST_P(OwnersTest, ALockOwnerBeginsWithItsFirstLock) {
  Client two = anotherClient("two");
  EXPECT_EQ(lock(two, "/d/f", open(two, "/d/f"), "b", kWriteLock, {0, 1}).status, kOk);
  const FsObjectStateId f = open(one, "/d/f");
  EXPECT_EQ(lock(one, "/d/f", f, "a", kWriteLock, {0, 1}).status, kDenied);
  // The name has become another owner's.
  one.sequences["lock a"] = 0;
  EXPECT_EQ(lock(one, "/d/f", f, "a", kWriteLock, {1, 1}).status, kOk);
}

TEST_P(OwnersTest, RequestsComeInOrderAndLastOnesMayComeAgain) {
  const FsObjectStateId f = open(one, "/d/f");
  const auto repeats = [&](const std::vector<std::string>& owners, const Compound& compound) {
    const Answer answer = inTurn(one, owners, compound);
    EXPECT_EQ(run(one, compound).whole, answer.whole) << compound.operations;
    return answer;
  };
  // Once made, with the file that was made as the current object.
  Compound creating = at("/d").add(op::kOpen, one.sequences["owner"], kBothAccess, 0U, one.id,
                                   "owner"s, guarded(), byName("new"));
  const Answer created = repeats({"owner"}, creating.add(op::kGetFh));
  ASSERT_THAT(created.statuses(), ElementsAre(kOk, kOk, kOk));
  EXPECT_EQ(created.body(), wire(handleOf("/d/new")));
  // Failures count, and are repeated, too.
  EXPECT_EQ(repeats({"owner"}, opening(one, "/d")).status, kIsDirectory);

  const auto numbered = [&](unsigned ahead) {
    one.sequences["owner"] += ahead;
    const Compound compound = opening(one, "/d/f");
    one.sequences["owner"] -= ahead;
    return run(one, compound).status;
  };
  EXPECT_EQ(numbered(1), kBadSequenceId);
  EXPECT_EQ(numbered(~1U), kBadSequenceId);
  // The number of the last one with another operation.
  EXPECT_EQ(run(one, at("/d/f").add(op::kClose, one.sequences["owner"] - 1, f)).status,
            kBadSequenceId);

  EXPECT_EQ(repeats({"owner", "lock a"}, locking(one, "/d/f", f, "a", kWriteLock, {0, 1})).status,
            kOk);
  EXPECT_EQ(repeats({"owner", "lock b"}, locking(one, "/d/f", f, "b", kWriteLock, {0, 1})).body(),
            denial({0, 1}, kWriteLock, one, "a"));
  const Answer locked = lock(one, "/d/f", f, "b", kWriteLock, {1, 1});
  const FsObjectStateId b = stateIdIn(locked);
  const auto unlocking = [&](const FsObjectStateId& id, unsigned sequenceId) {
    return at("/d/f").add(op::kLockU, kWriteLock, sequenceId, id, std::uint64_t{0}, kToTheEnd);
  };
  EXPECT_EQ(run(one, unlocking(b, one.sequences["lock b"] + 1)).status, kBadSequenceId);
  EXPECT_EQ(repeats({"lock b"}, unlocking(b, one.sequences["lock b"])).status, kOk);
  // Another owner goes its own way.
  EXPECT_EQ(run(one, unlocking(b, one.sequences["lock a"])).status, kBadSequenceId);

  EXPECT_EQ(
      repeats({"owner"}, at("/d/f").add(21U, f, one.sequences["owner"], kReadAccess, 0U)).status,
      kOk);
  const Compound closing =
      at("/d/f").add(op::kClose, one.sequences["owner"], FsObjectStateId{2, f.other});
  EXPECT_EQ(repeats({"owner"}, closing).status, kOk);
  // Only the last one is remembered.
  open(one, "/d/f");
  EXPECT_EQ(run(one, closing).status, kBadSequenceId);
}

}  // namespace
}  // namespace nfslib::testing
