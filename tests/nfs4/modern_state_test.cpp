#include "nfs4/client.h"
#include "support/nfs4_states.h"

// The modern profile: state by stateids, and the operations that the clients of today expect.

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;

constexpr unsigned kIllegal = 10044, kNotSupported = 10004, kBusy = 10074;
const FsObjectStateId kBypass = [] {
  FsObjectStateId id{~0U, {}};
  id.other.bytes.fill(std::byte{0xFF});
  return id;
}();

class ModernStateTest : public StatesTest {};

TEST_P(ModernStateTest, FindsWhatIsOpenByItsStateId) {
  const FsObjectStateId f = open(one, "/d/f");
  const FsObjectStateId g = open(one, "/d/g");
  const FsObjectStateId second = open(one, "/d/f", "second owner");
  EXPECT_EQ(f.sequenceId, 1U);
  EXPECT_NE(f.other, g.other);
  EXPECT_NE(f.other, second.other);
  EXPECT_EQ(read("/d/f", f).body(), wire(1U, "content"s));
  EXPECT_EQ(read("/d/g", g).body(), wire(1U, "another"s));
  EXPECT_EQ(read("/d/f", g).status, kBadStateId);

  // The same owner opens further: the same state, one step on.
  const FsObjectStateId again = open(one, "/d/f");
  EXPECT_EQ(again, (FsObjectStateId{2, f.other}));
  EXPECT_EQ(read("/d/f", f).status, kOldStateId);
  EXPECT_EQ(read("/d/f", {3, f.other}).status, kBadStateId);
  EXPECT_EQ(read("/d/f", {0, f.other}).status, minorVersion == 0 ? kOldStateId : kOk);

  const Answer closed = close(one, "/d/f", again);
  EXPECT_EQ(closed.status, kOk);
  const FsObjectStateId invalid{~0U, {}};
  EXPECT_EQ(stateIdIn(closed), minorVersion == 0 ? (FsObjectStateId{3, f.other}) : invalid);
  EXPECT_EQ(read("/d/f", again).status, kBadStateId);
  EXPECT_EQ(close(one, "/d/f", again).status, kBadStateId);
  EXPECT_EQ(read("/d/f", second).status, kOk);

  FsObjectStateId foreign = g;
  foreign.other.bytes[0] ^= std::byte{1};
  EXPECT_EQ(read("/d/g", foreign).status, minorVersion == 0 ? kStaleStateId : kBadStateId);
}

TEST_P(ModernStateTest, SharesFilesAsTheirOpenersAllow) {
  const FsObjectStateId reader = open(one, "/d/f", "reader", kReadAccess, kWriteAccess);
  EXPECT_EQ(status(opening(one, "/d/f", "writer", kWriteAccess)), kShareDenied);
  EXPECT_EQ(status(opening(one, "/d/f", "jealous", kReadAccess, kReadAccess)), kShareDenied);
  EXPECT_EQ(write("/d/f", reader, "x"), kOpenMode);
  EXPECT_EQ(write("/d/f", kNoState, "x"), kLocked);
  const Compound truncate = at("/d/f").add(op::kSetAttr, kNoState, fattr4(kSize, std::uint64_t{0}));
  EXPECT_EQ(status(truncate), kLocked);
  EXPECT_EQ(read("/d/f", kNoState).status, kOk);
  EXPECT_EQ(close(one, "/d/f", reader, "reader").status, kOk);

  EXPECT_EQ(status(opening(one, "/d/f", "nobody", 0)), kInvalid);
  EXPECT_EQ(status(opening(one, "/d/f", "nobody", 4)), kInvalid);
  const FsObjectStateId alone = open(one, "/d/f", "alone", kBothAccess, kBothAccess);
  EXPECT_EQ(read("/d/f", kNoState).status, kLocked);
  EXPECT_EQ(read("/d/f", kBypass).status, kOk);
  const auto narrowed = [&](const FsObjectStateId& id, unsigned access, unsigned deny) {
    return narrow(one, "/d/f", id, access, deny, "alone");
  };
  EXPECT_EQ(narrowed(alone, 0, 0).status, kInvalid);
  const Answer answer = narrowed(alone, kReadAccess, 0);
  EXPECT_EQ(stateIdIn(answer), (FsObjectStateId{2, alone.other}));
  EXPECT_EQ(narrowed(stateIdIn(answer), kBothAccess, 0).status, kInvalid);
  EXPECT_EQ(write("/d/f", stateIdIn(answer), "x"), kOpenMode);
  EXPECT_EQ(write("/d/f", kNoState, "C"), kOk);
  EXPECT_EQ(contentOf("/d/f"), "Content");
}

TEST_P(ModernStateTest, StateGoesWithItsClientAndItsExport) {
  const FsObjectStateId f = open(one, "/d/f");
  EXPECT_EQ(read("/d/f", f).status, kOk);
  if (minorVersion == 1) {
    ClientSession other = makeSession("another client");
    const Compound reading = at("/d/f").add(op::kRead, f, std::uint64_t{0}, 1U);
    EXPECT_EQ(run(other, reading).status, kBadStateId);
    const std::uint64_t id = service.findClientByOwner("client")->getId();
    EXPECT_EQ(run(other, Compound().add(op::kDestroySession, own.id)).status, kOk);
    EXPECT_EQ(send4(1, Compound().add(op::kDestroyClientId, id)).status, kBusy);
  } else {
    // The same client, then another one, then the first one started anew.
    EXPECT_EQ(setClientId("client"), one.id);
    EXPECT_NE(setClientId("another client"), one.id);
    EXPECT_EQ(read("/d/f", f).status, kOk);
    service.deleteClientId(one.id);
    EXPECT_EQ(read("/d/f", f).status, kBadStateId);
    EXPECT_EQ(status(opening(one, "/d/f")), kStaleClient);
  }
  service.openFiles().dropFileSystem(root.fileSystemId);
  EXPECT_FALSE(service.openFiles().hasState(one.id));
}

TEST_P(ModernStateTest, NothingIsLeftForTheNextCompound) {
  EXPECT_EQ(status(at("/d/f").add(op::kSaveFh)), kOk);
  EXPECT_EQ(status(Compound().add(op::kGetFh)), kNoFileHandle);
  EXPECT_EQ(status(Compound().add(op::kRestoreFh)), kNoFileHandle);
  NfsHandle unknown = root;
  unknown.objectId = 0x7777;
  EXPECT_EQ(status(Compound().put(unknown)), kStaleHandle);
}

TEST_P(ModernStateTest, EachMinorVersionHasItsOperations) {
  EXPECT_EQ(run(at("/d/f").add(5U, std::uint64_t{0}, 0U)).body(),
            wire(service.identity().writeVerifier));
  EXPECT_EQ(run(at("/d").add(33U, "f"s)).body(), wire(1U, 1U));
  EXPECT_EQ(status(at("/d").add(33U, "missing"s)), kNoEntry);
  EXPECT_EQ(status(Compound().add(23U).lookup("export")), kOk);
  EXPECT_EQ(status(at("/d/f").add(8U, kNoState)), kBadStateId);
  const FsObjectStateId f = open(one, "/d/f");
  if (minorVersion == 0) {
    EXPECT_EQ(status(Compound().add(30U, one.id)), kOk);
    EXPECT_EQ(status(Compound().add(30U, one.id + 1)), kStaleClient);
    EXPECT_EQ(status(Compound().add(39U, one.id, "owner"s)), kOk);
    EXPECT_EQ(run(one, confirming(one, "/d/f", f)).status, kBadStateId);
    EXPECT_EQ(run(Compound().add(55U, 0U)).results.at(0).operation, kIllegal);
  } else {
    EXPECT_EQ(status(Compound().add(30U, std::uint64_t{1})), kNotSupported);
    EXPECT_EQ(run(at("/d").add(52U, 0U)).body(), wire(1U, 1U));
    EXPECT_THAT(statuses(at("/d").add(52U, 1U).add(op::kGetFh)),
                ElementsAre(kOk, kOk, kNoFileHandle));
    const FsObjectStateId unknown{1, {}};
    EXPECT_EQ(run(Compound().add(55U, 2U, f, unknown)).body(), wire(2U, kOk, kBadStateId));
    EXPECT_EQ(status(Compound().add(45U, f)), kLocksHeld);
    EXPECT_EQ(send4(1, Compound().add(41U, own.id, 3U, false)).body(), wire(own.id, 1U, 0U));
    // The state that the COMPOUND has come by itself.
    const Compound current =
        opening(one, "/d/f").add(op::kRead, FsObjectStateId{1, {}}, std::uint64_t{0}, 100U);
    EXPECT_EQ(run(current).body(), wire(1U, "content"s));
  }
}

TEST_P(ModernStateTest, TheSavedObjectsStateIdComesBackWithIt) {
  const FsObjectStateId current{1, {}};
  const Answer answer = run(opening(one, "/d/f")
                                .add(op::kSaveFh)
                                .add(at("/d/g"))
                                .add(op::kRestoreFh)
                                .add(op::kRead, current, std::uint64_t{0}, 100U));
  // Minor version 0 has no current stateid.
  EXPECT_EQ(answer.status, minorVersion == 0 ? kBadStateId : kOk);
  EXPECT_EQ(answer.body(), minorVersion == 0 ? "" : wire(1U, "content"s));
}

TEST_P(ModernStateTest, ExclusiveCreationIsRepeatedByItsVerifier) {
  const auto create = [&](std::uint64_t verifier) {
    return status(at("/d").add(op::kOpen, 0U, kBothAccess, 0U, one.id, "owner"s,
                               exclusive(verifier), byName("new")));
  };
  EXPECT_EQ(create(1), kOk);
  EXPECT_EQ(create(1), kOk);
  EXPECT_EQ(create(2), kExists);
}

TEST_P(ModernStateTest, WhatIsMadeBelongsToItsMaker) {
  server4.setAllowedGroupId(60);
  MetaData md = attributes("/d");
  md.mode = 0777;
  directoryAt(NfsPath("/d"))->SetMetaData(md);
  view->dropMetaData(NfsPath("/d"));
  caller4.caller.uid = 50;
  caller4.caller.gid = 60;
  EXPECT_EQ(status(at("/d").add(op::kOpen, 0U, kBothAccess, 0U, one.id, "owner"s,
                                unchecked(fattr4({0, 2}, 0444U)), byName("file"))),
            kOk);
  EXPECT_EQ(status(at("/d").add(op::kCreate, 2U, "directory"s, kNoAttributes)), kOk);
  for (const char* path : {"/d/file", "/d/directory"}) {
    EXPECT_EQ(attributes(path).uid, 50U) << path;
    EXPECT_EQ(attributes(path).gid, 60U) << path;
  }
  // Its owner may write what was made read-only; only bits that were asked for are told of.
  EXPECT_EQ(run(at("/d/file").add(op::kAccess, 0x0CU)).body(), wire(0x0CU, 0x0CU));
  EXPECT_EQ(status(at("/d").add(op::kOpen, 0U, kBothAccess, 0U, one.id, "owner"s, kNoCreate,
                                byName("file"))),
            kOk);
}

INSTANTIATE_TEST_SUITE_P(Both, ModernStateTest, ::testing::Values(0U, 1U), minorVersionName);

TEST(ModernIdentity, IsAnotherForEachServer) {
  const Profile profile = profileOf(NfsServerPolicy::modern());
  const ServerIdentity one = identityFor(profile), two = identityFor(profile);
  EXPECT_NE(one.owner, two.owner);
  EXPECT_NE(one.scope, two.scope);
  EXPECT_NE(one.writeVerifier, two.writeVerifier);
  EXPECT_NE(one.firstClientId >> 32U, two.firstClientId >> 32U);
}

}  // namespace
}  // namespace nfslib::testing
