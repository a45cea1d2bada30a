#include "support/nfs4_fixture.h"
#include "support/rights_fixture.h"

#include <functional>
#include <string>

// Who may do what in version 4, in the modern profile.

namespace nfslib::testing {
namespace {

constexpr unsigned kNotOwner = 1, kDenied = 13;
constexpr unsigned kReads = 1, kWrites = 2, kBoth = 3, kSecInfo = 33;

class Rights4Test : public RightsFixture<BothVersionsTest> {
 protected:
  void SetUp() override {
    RightsFixture::SetUp();
    server4.setProfile(service.profile());
    server4.setAllowedGroupId(kLetIn);
    serve(true);
    if (minorVersion == 0) client = setClientId("client");
  }
  void become(const CallerKind& kind) {
    RightsFixture::become(kind, caller4.caller);
    owner = kind.what;
  }
  // sattr of one attribute
  template <class... Values>
  Compound setting(const FsObjectStateId& id, const Bitmap& bitmap, const Values&... values) {
    return at("/d/f").add(op::kSetAttr, id, fattr4(bitmap, values...));
  }
  Compound opening(const std::string& path, unsigned access, const Raw& how, const Raw& claim) {
    return at(path).add(op::kOpen, 0U, access, 0U, client, owner, how, claim);
  }
  Compound renaming(const char* from, const char* name, const char* to, const char* newName) {
    return at(from)
        .add(op::kSaveFh)
        .add(at(to))
        .add(op::kRename, std::string(name), std::string(newName));
  }
  Compound reading(const FsObjectStateId& id) {
    return at("/d/f").add(op::kRead, id, std::uint64_t{0}, 4U);
  }
  Compound writing(const FsObjectStateId& id) {
    return at("/d/f").add(op::kWrite, id, std::uint64_t{0}, 2U, "x"s);
  }
  FsObjectStateId open(const std::string& path, const Compound& compound) {
    const Answer answer = run(compound);
    EXPECT_EQ(answer.status, kOk);
    if (answer.status != kOk) return {};
    const FsObjectStateId id = stateIdIn(answer);
    if (minorVersion == 0) {
      EXPECT_EQ(status(at(path).add(20U, id, 1U)), kOk);  // OPEN_CONFIRM
    }
    return id;
  }
  unsigned accessTo(const char* path) {
    const std::string body = run(at(path).add(op::kAccess, 0x3FU)).body();
    return static_cast<unsigned>(std::stoul(body.substr(body.size() - 8), nullptr, 16));
  }

  static inline const Bitmap kMode{0, 1U << 1U}, kOwners{0, 1U << 4U}, kModified{0, 1U << 22U};
  std::uint64_t client = 0;
  std::string owner = "owner";
};

TEST_P(Rights4Test, OwnerGroupAndModeDecide) {
  enum Unless { kNobody, kOwner, kOnlyOwner };
  struct Operation {
    const char* what;
    std::function<Compound()> compound;
    unsigned ofDirectory, ofFile;
    Unless unless = kNobody;
    bool runsToo = false;  // who may run the file may do it
  };
  const Raw emptied = unchecked(fattr4(kSize, std::uint64_t{0}));
  const Operation operations[]{
      {"GETATTR", [&] { return at("/d/f").getAttr(kSize); }, 0, 0},
      {"READLINK", [&] { return at("/d/link").add(op::kReadLink); }, 0, 0},
      {"LOOKUP", [&] { return at("/d").lookup("f"); }, kX, 0},
      {"LOOKUPP", [&] { return at("/d").add(op::kLookupP); }, kX, 0},
      {"SECINFO", [&] { return at("/d").add(kSecInfo, "f"s); }, kX, 0},
      {"READDIR", [&] { return at("/d").add(op::kReadDir, 0UL, 0UL, 4096U, 4096U, Bitmap{}); }, kR,
       0},
      {"READ", [&] { return reading(kNoState); }, 0, kR, kOwner, true},
      {"WRITE", [&] { return writing(kNoState); }, 0, kW, kOwner},
      {"SETATTR size", [&] { return setting(kNoState, kSize, std::uint64_t{0}); }, 0, kW, kOwner},
      {"SETATTR now", [&] { return setting(kNoState, kModified, 0U); }, 0, kW, kOwner},
      {"SETATTR then", [&] { return setting(kNoState, kModified, 1U, 12UL, 0U); }, 0, 0,
       kOnlyOwner},
      {"SETATTR mode", [&] { return setting(kNoState, kMode, 0640U); }, 0, 0, kOnlyOwner},
      {"OPEN to read", [&] { return opening("/d", kReads, kNoCreate, byName("f")); }, kX, kR,
       kNobody, true},
      {"OPEN to write", [&] { return opening("/d", kWrites, kNoCreate, byName("f")); }, kX, kW,
       kOwner},
      {"OPEN by handle", [&] { return opening("/d/f", kWrites, kNoCreate, kByHandle); }, 0, kW,
       kOwner},
      {"OPEN that empties", [&] { return opening("/d", kReads, emptied, byName("f")); }, kX,
       kR | kW},
      {"OPEN that makes", [&] { return opening("/d", kBoth, guarded(), byName("new")); }, kW | kX,
       0},
      {"CREATE", [&] { return at("/d").add(op::kCreate, 2U, "new"s, kNoAttributes); }, kW | kX, 0},
      {"LINK", [&] { return at("/d/f").add(op::kSaveFh).add(at("/d")).add(op::kLink, "new"s); },
       kW | kX, 0},
      {"REMOVE", [&] { return at("/d").add(op::kRemove, "victim"s); }, kW | kX, 0},
      {"RENAME out", [&] { return renaming("/d", "victim", "/e", "new"); }, kW | kX, 0},
      {"RENAME in", [&] { return renaming("/e", "x", "/d", "new"); }, kW | kX, 0},
  };
  for (const Operation& operation : operations) {
    for (const CallerKind& caller : kCallers) {
      for (unsigned bits = 0; bits < 64; ++bits) {
        const unsigned ofDirectory = bits & 7U, ofFile = bits >> 3U;
        // Bits that it does not go by: all or none.
        const auto isEnd = [](unsigned three) { return three == 0 || three == 7; };
        if (operation.ofDirectory == 0 && !isEnd(ofDirectory)) continue;
        if (operation.ofFile == 0 && !isEnd(ofFile)) continue;
        give("/d", modeFor(caller, ofDirectory));
        give("/d/f", modeFor(caller, ofFile));
        become(caller);
        const bool isRoot = caller.uid == 0, isOwner = caller.uid == kOwnerId;
        unsigned has = ofFile;
        if (operation.runsToo && (ofFile & kX) != 0) has |= kR;
        if (operation.ofFile == (kR | kW)) {  // of two rights, each has its own exemption
          if ((ofFile & kX) != 0) has |= kR;
          if (isOwner) has |= kW;
        }
        const bool isExempt = isOwner && operation.unless != kNobody;
        bool expected = (ofDirectory & operation.ofDirectory) == operation.ofDirectory &&
                        ((has & operation.ofFile) == operation.ofFile || isExempt);
        if (operation.unless == kOnlyOwner) expected = isOwner;
        expected = expected || isRoot;

        const std::string where = operation.what + std::string(" by ") + caller.what +
                                  ", directory " + std::to_string(ofDirectory) + ", file " +
                                  std::to_string(ofFile);
        const std::string before = snapshot();
        const unsigned refusal = operation.unless == kOnlyOwner ? kNotOwner : kDenied;
        ASSERT_EQ(status(operation.compound()), expected ? kOk : refusal) << where;
        if (!expected) {
          ASSERT_EQ(snapshot(), before) << where;
        }
        if (!expected || before == snapshot()) continue;
        for (const char* path : {"/d", "/e"}) {
          if (view->openDirectory(NfsPath(path))->TryGetEntryByName("new")) {
            view->remove("new", NfsPath(path));
            view->recordRemoval(NfsPath(path) / "new");
          }
        }
        for (const char* path : {"/d/victim", "/e/x"}) {
          if (!parentOf(path)->TryGetEntryByName(NfsPath(path).getFileName())) file(path, "again");
          give(path, 0777);
        }
      }
    }
  }
}

TEST_P(Rights4Test, WhatIsOpenStaysOpen) {
  become(kCallers[2]);
  give("/d/f", 0606);
  const FsObjectStateId both = open("/d/f", opening("/d/f", kBoth, kNoCreate, kByHandle));
  give("/d/f", 0602);
  owner = "writer";
  const FsObjectStateId writer = open("/d/f", opening("/d/f", kWrites, kNoCreate, kByHandle));
  EXPECT_EQ(status(reading(writer)), kDenied) << "who may write only";
  give("/d/f", 0600);
  EXPECT_EQ(status(reading(both)), kOk);
  EXPECT_EQ(status(writing(both)), kOk);
  EXPECT_EQ(status(setting(both, kSize, std::uint64_t{3})), kOk);
  EXPECT_EQ(status(setting(both, kModified, 0U)), kDenied);
  EXPECT_EQ(status(reading(kNoState)), kDenied);
  EXPECT_EQ(status(writing(kNoState)), kDenied);
  // A file that was made with a mode that lets nobody write.
  owner = "maker";
  const FsObjectStateId made =
      open("/d/new", opening("/d", kBoth, guarded(fattr4(kMode, 0U)), byName("new")));
  EXPECT_EQ(status(at("/d/new").add(op::kWrite, made, std::uint64_t{0}, 2U, "x"s)), kOk);
  EXPECT_EQ(status(at("/d/new").add(op::kRead, made, std::uint64_t{0}, 4U)), kOk);
}

TEST_P(Rights4Test, OwnersAreChangedByOwnersAndRoot) {
  give("/d", 01777);
  become(kCallers[2]);
  EXPECT_EQ(status(at("/d").add(op::kRemove, "victim"s)), kNotOwner);
  EXPECT_EQ(status(renaming("/d", "victim", "/e", "new")), kNotOwner);
  EXPECT_EQ(status(renaming("/e", "x", "/d", "victim")), kNotOwner);
  const auto create = [&](const Raw& attributes) {
    return status(at("/d").add(op::kCreate, 2U, "new"s, attributes));
  };
  const std::string before = snapshot();
  EXPECT_EQ(create(fattr4(kOwners, "7"s)), kNotOwner);
  EXPECT_EQ(snapshot(), before) << "nothing was made";
  EXPECT_EQ(create(fattr4(kOwners, "8"s)), kOk);
  EXPECT_EQ(status(at("/d").add(op::kRemove, "new"s)), kOk) << "its own";
  EXPECT_EQ(status(setting(kNoState, kOwners, "8"s)), kNotOwner);
  become(kCallers[0]);
  EXPECT_EQ(status(setting(kNoState, kOwners, "8"s)), kNotOwner);
  EXPECT_EQ(status(setting(kNoState, kMode, 06755U)), kOk);
  EXPECT_EQ(attributes("/d/f").mode, 04755) << "it is no member of the group";
  become(kCallers[3]);
  EXPECT_EQ(status(setting(kNoState, kOwners, "8"s)), kOk);
}

INSTANTIATE_TEST_SUITE_P(Both, Rights4Test, ::testing::Values(0U, 1U), minorVersionName);

class Decided4Test : public Rights4Test {
 protected:
  FileSystem& exported() override { return deciding; }
  DecidingHost deciding{host};
};

TEST_P(Decided4Test, AHostThatDecidesDoesSoInPlaceOfTheModes) {
  using enum IAccessControl::Right;
  std::uint32_t mine = 0;
  deciding.decide = [&](const Caller&, const std::string&, std::uint32_t requested) {
    return requested & mine;
  };
  become(kCallers[3]);
  struct Case {
    Compound compound;
    std::uint32_t takes;
  };
  for (const Case& c : {
           Case{at("/d").lookup("f"), execute},
           Case{at("/d").add(op::kReadDir, 0UL, 0UL, 4096U, 4096U, Bitmap{}), read},
           Case{opening("/d/f", kBoth, kNoCreate, kByHandle), read | write},
           Case{reading(kNoState), read},
           Case{writing(kNoState), write},
           Case{setting(kNoState, kMode, 0U), changeAttributes},
           Case{setting(kNoState, kOwners, "8"s), changeOwner},
           Case{at("/d").add(op::kCreate, 2U, "new"s, kNoAttributes), write | execute},
           Case{renaming("/d", "new", "/d", "old"), write | execute | remove},
           Case{at("/d").add(op::kRemove, "old"s), write | execute | remove},
       }) {
    const std::string before = snapshot();
    for (std::uint32_t bit = read; bit <= changeOwner; bit <<= 1U) {
      if ((c.takes & bit) == 0) continue;
      mine = c.takes & ~bit;
      const bool isOfOwners = bit == remove || bit == changeAttributes || bit == changeOwner;
      EXPECT_EQ(status(c.compound), isOfOwners ? kNotOwner : kDenied) << c.compound.operations;
    }
    EXPECT_EQ(snapshot(), before);
    mine = c.takes;
    EXPECT_EQ(status(c.compound), kOk) << c.compound.operations;
  }
  mine = write;
  EXPECT_EQ(accessTo("/d"), 0x1CU);
}

INSTANTIATE_TEST_SUITE_P(Both, Decided4Test, ::testing::Values(0U, 1U), minorVersionName);

}  // namespace
}  // namespace nfslib::testing
