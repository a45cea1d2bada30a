#include "support/rights_fixture.h"

#include <functional>
#include <optional>
#include <string>

// Who may do what in version 3, in the modern profile.

namespace nfslib::testing {
namespace {

enum Status : unsigned { kNotOwner = 1, kDenied = 13, kExists = 17 };
enum Access : unsigned { kAccessR = 1, kAccessX = 2, kAccessW = 4 | 8 };

// sattr3
const std::string kNothing = wire(0U, 0U, 0U, 0U, 0U, 0U);
std::string modeOf(unsigned mode) { return wire(true, mode, 0U, 0U, 0U, 0U, 0U); }
std::string owners(std::optional<unsigned> uid, std::optional<unsigned> gid) {
  std::string text = wire(false);
  for (const auto& id : {uid, gid}) text += id ? " " + wire(true, *id) : " " + wire(false);
  return text + wire(0U, 0U, 0U);
}
const std::string kResized = wire(0U, 0U, 0U, true, std::uint64_t{0}, 0U, 0U);
const std::string kNow = wire(0U, 0U, 0U, 0U, 1U, 1U);
const std::string kThen = wire(0U, 0U, 0U, 0U, 2U, 12U, 0U, 0U);

class Rights3Test : public RightsFixture<Nfs3Test> {
 protected:
  Rights3Test() {
    server.setProfile(service.profile());
    server.setAllowedGroupId(kLetIn);
  }
  std::string entry(const char* dir, const char* name) {
    return wire(handleOf(dir), std::string(name));
  }
  unsigned statusOf(unsigned procedure, const std::string& arguments) const {
    const Reply reply = send(procedure, arguments);
    EXPECT_EQ(reply.acceptStatus, kAccepted);
    MemoryStream results;
    results.setInputData({reply.results.data(), reply.results.size()});
    unsigned status = ~0U;
    results >> status;
    return status;
  }
  unsigned accessTo(const char* path) {
    const std::string body = call(kAccess, handleOf(path), 0x3FU).body();
    return static_cast<unsigned>(std::stoul(body.substr(body.size() - 8), nullptr, 16));
  }
  void become(const CallerKind& kind) { RightsFixture::become(kind, send.caller); }
};

TEST_F(Rights3Test, OwnerGroupAndModeDecide) {
  serve(true);
  enum Unless { kNobody, kOwner, kOnlyOwner };
  struct Operation {
    const char* what;
    unsigned procedure;
    std::string arguments;
    unsigned ofDirectory, ofFile;  // the bits that it takes, all of them
    Unless unless = kNobody;       // who needs none of the file's, or is the only one
  };
  const std::string bytes = wire(std::uint64_t{0}, 1U, 2U, std::string("x"));
  const std::string f = wire(handleOf("/d/f"));
  const std::string page = wire(0UL, 0UL, 4096U), pages = wire(0UL, 0UL, 4096U, 4096U);
  const Operation operations[]{
      {"GETATTR", kGetAttr, f, 0, 0},  // and ACCESS
      {"READLINK", kReadLink, wire(handleOf("/d/link")), 0, 0},
      {"LOOKUP", kLookup, entry("/d", "f"), kX, 0},
      {"READDIR", kReadDir, wire(handleOf("/d")) + page, kR, 0},
      {"READDIRPLUS", kReadDirPlus, wire(handleOf("/d")) + pages, kR, 0},
      {"READ", kRead, f + wire(std::uint64_t{0}, 4U), 0, kR, kOwner},
      {"WRITE", kWrite, f + bytes, 0, kW, kOwner},
      {"SETATTR size", kSetAttr, f + kResized + wire(false), 0, kW, kOwner},
      {"SETATTR now", kSetAttr, f + kNow + wire(false), 0, kW, kOwner},
      {"SETATTR then", kSetAttr, f + kThen + wire(false), 0, 0, kOnlyOwner},
      {"SETATTR mode", kSetAttr, f + modeOf(0640) + wire(false), 0, 0, kOnlyOwner},
      {"CREATE", kCreate, entry("/d", "new") + wire(1U) + kNothing, kW | kX, 0},
      {"CREATE of a file that is there", kCreate, entry("/d", "f") + wire(0U) + kResized, kX, kW,
       kOwner},
      {"MKDIR", kMkDir, entry("/d", "new") + kNothing, kW | kX, 0},
      {"SYMLINK", kSymlink, entry("/d", "new") + kNothing + wire(std::string("t")), kW | kX, 0},
      {"LINK", kLink, f + entry("/d", "new"), kW | kX, 0},
      {"REMOVE", kRemove, entry("/d", "victim"), kW | kX, 0},
      {"RMDIR", kRmDir, entry("/d", "empty"), kW | kX, 0},
      {"RENAME out", kRename, entry("/d", "victim") + entry("/e", "new"), kW | kX, 0},
      {"RENAME in", kRename, entry("/e", "x") + entry("/d", "new"), kW | kX, 0},
      {"RENAME within", kRename, entry("/d", "victim") + entry("/d", "new"), kW | kX, 0},
  };
  for (const Operation& operation : operations) {
    for (const CallerKind& caller : kCallers) {
      for (unsigned bits = 0; bits < 64; ++bits) {
        const unsigned ofDirectory = bits & 7U, ofFile = bits >> 3U;
        // Bits that it does not go by: all or none.
        const auto isEnd = [](unsigned three) { return three == 0 || three == 7; };
        const bool isAccess = operation.procedure == kGetAttr;
        if (!isAccess && operation.ofDirectory == 0 && !isEnd(ofDirectory)) continue;
        if (!isAccess && operation.ofFile == 0 && !isEnd(ofFile)) continue;
        give("/d", modeFor(caller, ofDirectory));
        give("/d/f", modeFor(caller, ofFile));
        become(caller);
        const bool isRoot = caller.uid == 0, isOwner = caller.uid == kOwnerId;
        // Whoever may run a file may read it, for that.
        const unsigned readable = (ofFile & kX) != 0 ? ofFile | kR : ofFile;
        const unsigned has = operation.procedure == kRead ? readable : ofFile;
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
        ASSERT_EQ(statusOf(operation.procedure, operation.arguments), expected ? kOk : refusal)
            << where;
        if (!expected) {
          ASSERT_EQ(snapshot(), before) << where;
        }
        // ACCESS tells the same.
        if (!isRoot && operation.procedure == kGetAttr) {
          unsigned directory = 0, file = 0;
          if ((ofDirectory & kR) != 0) directory |= kAccessR;
          if ((ofDirectory & kX) != 0) directory |= kAccessX;
          if ((ofDirectory & kW) != 0) directory |= kAccessW;
          if ((ofFile & kR) != 0) file |= kAccessR;
          if ((ofFile & kW) != 0 || isOwner) file |= kAccessW;
          ASSERT_EQ(accessTo("/d") & 0xFU, directory) << where;
          ASSERT_EQ(accessTo("/d/f") & 0xFU, file) << where;
        }
        if (!expected || before == snapshot()) continue;
        // The tree as it was.
        for (const char* path : {"/d/new", "/e/new"}) {
          const auto parent = view->openDirectory(NfsPath(path).getParentPath());
          const auto made = parent->TryGetEntryByName("new");
          if (!made) continue;
          view->remove("new", NfsPath(path).getParentPath());
          view->recordRemoval(NfsPath(path));
        }
        for (const char* path : {"/d/victim", "/e/x"}) {
          if (!parentOf(path)->TryGetEntryByName(NfsPath(path).getFileName())) file(path, "again");
          give(path, 0777);
        }
        if (!parentOf("/d/empty")->TryGetEntryByName("empty")) dir("/d/empty");
        give("/d/empty", 0777);
      }
    }
  }
}

TEST_F(Rights3Test, OnlyOwnersTakeEntriesOutOfStickyDirectories) {
  serve(true);
  struct Case {
    unsigned uid, ofDirectory, ofEntry;
    bool allowed;
  };
  for (const Case& c : {Case{8, 1000, 1000, false}, Case{8, 1000, 8, true}, Case{8, 8, 1000, true},
                        Case{0, 1000, 1000, true}}) {
    give("/d", 01777, c.ofDirectory);
    for (const char* path : {"/d/victim", "/d/empty", "/d/f", "/e/x"}) give(path, 0777, c.ofEntry);
    send.caller.uid = c.uid;
    send.caller.gid = kLetIn;
    const unsigned expected = c.allowed ? kOk : kNotOwner;
    const std::string before = snapshot();
    EXPECT_EQ(statusOf(kRename, entry("/e", "x") + entry("/d", "victim")), expected);
    EXPECT_EQ(statusOf(kRename, entry("/d", "f") + entry("/d", "g")), expected);
    EXPECT_EQ(statusOf(kRemove, entry("/d", c.allowed ? "g" : "f")), expected);
    EXPECT_EQ(statusOf(kRmDir, entry("/d", "empty")), expected);
    if (!c.allowed) {
      EXPECT_EQ(snapshot(), before);
      continue;
    }
    EXPECT_EQ(statusOf(kRemove, entry("/d", "victim")), kOk);
    for (const char* path : {"/d/f", "/d/victim", "/e/x"}) file(path, "again");
    dir("/d/empty");
  }
  // A directory that goes elsewhere is changed itself.
  give("/d", 0777);
  give("/d/empty", 0755);
  send.caller.uid = 8;
  EXPECT_EQ(statusOf(kRename, entry("/d", "empty") + entry("/e", "empty")), kDenied);
  EXPECT_EQ(statusOf(kRename, entry("/d", "empty") + entry("/d", "other")), kOk);
}

TEST_F(Rights3Test, NobodyGivesAwayWhatOthersMayNotHave) {
  serve(true);
  struct Case {
    unsigned caller;  // index of kCallers
    std::optional<unsigned> uid, gid;
    unsigned status;
  };
  for (const Case& c : {
           Case{0, 7U, {}, kNotOwner},
           Case{0, kOwnerId, {}, kOk},
           Case{0, {}, kLetIn, kOk},
           Case{0, {}, 501U, kNotOwner},
           Case{0, {}, kGroupId, kOk},
           Case{1, 7U, {}, kNotOwner},
           Case{1, {}, kGroupId, kNotOwner},
           Case{3, 7U, 501U, kOk},
       }) {
    give("/d/f", 06777);
    become(kCallers[c.caller]);
    const std::string before = snapshot();
    const auto set = wire(handleOf("/d/f")) + owners(c.uid, c.gid) + wire(false);
    EXPECT_EQ(statusOf(kSetAttr, set), c.status) << c.caller;
    if (c.status != kOk) {
      EXPECT_EQ(snapshot(), before);
    }
    const bool isGiven = c.caller == 0 && c.gid == kLetIn;
    EXPECT_EQ(attributes("/d/f").mode, isGiven ? 0777 : 06777) << "does not run as another";
    // The same of what is to be made, which is the caller's own.
    const bool isOwn = c.uid.value_or(kCallers[c.caller].uid) == kCallers[c.caller].uid &&
                       c.gid.value_or(kLetIn) != 501U && (c.caller != 0 || c.gid != kGroupId);
    const auto make = entry("/d", "new") + owners(c.uid, c.gid);
    const unsigned made = isOwn || c.caller == 3 ? kOk : kNotOwner;
    EXPECT_EQ(statusOf(kMkDir, make), made) << c.caller;
    EXPECT_EQ(view->pathExists(NfsPath("/d/new")), made == kOk);
    if (made == kOk) {
      EXPECT_EQ(statusOf(kRmDir, entry("/d", "new")), kOk);
    }
  }
  // Nor the rights of a group that he is no member of.
  give("/d/f", 0644, kOwnerId, 501);
  become(kCallers[0]);
  EXPECT_EQ(statusOf(kSetAttr, wire(handleOf("/d/f")) + modeOf(06755) + wire(false)), kOk);
  EXPECT_EQ(attributes("/d/f").mode, 04755);
  give("/d", 02777, kOwnerId, 501);
  EXPECT_EQ(statusOf(kCreate, entry("/d", "new") + wire(1U) + modeOf(02755)), kOk);
  EXPECT_EQ(attributes("/d/new").mode, 0755);
  EXPECT_EQ(attributes("/d/new").gid, 501U);
  // All sixteen groups count.
  give("/d/f", 0070);
  become(kCallers[2]);
  send.caller.groupCount = 16;
  send.caller.groups.fill(2);
  EXPECT_EQ(accessTo("/d/f"), 0U);
  send.caller.groups[15] = kGroupId;
  EXPECT_EQ(accessTo("/d/f"), 0x3DU);
}

class Decided3Test : public Rights3Test {
 protected:
  FileSystem& exported() override { return deciding; }
  DecidingHost deciding{host};
};

TEST_F(Decided3Test, AHostThatDecidesDoesSoInPlaceOfTheModes) {
  using enum IAccessControl::Right;
  std::uint32_t mine = 0;
  deciding.decide = [&](const Caller& caller, const std::string& path, std::uint32_t requested) {
    EXPECT_EQ(caller.gid, kLetIn);
    EXPECT_EQ(caller.groups.size(), 1U);
    if (path == "/e") throw std::runtime_error("nobody knows");
    return caller.uid == 8 ? requested & mine : 0;
  };
  serve(true);
  become(kCallers[2]);
  for (const char* path : {"/d", "/d/f", "/d/victim"}) give(path, 0);
  const std::string f = wire(handleOf("/d/f"));
  struct Case {
    unsigned procedure;
    std::string arguments;
    std::uint32_t takes;
  };
  for (const Case& c : {
           Case{kLookup, entry("/d", "f"), execute},
           Case{kReadDir, wire(handleOf("/d"), 0UL, 0UL, 4096U), read},
           Case{kRead, f + wire(std::uint64_t{0}, 4U), read},
           Case{kRead, f + wire(std::uint64_t{0}, 4U), execute},
           Case{kWrite, f + wire(std::uint64_t{0}, 1U, 2U, std::string("x")), write},
           Case{kSetAttr, f + modeOf(0) + wire(false), changeAttributes},
           Case{kSetAttr, f + owners(3, 4) + wire(false), changeOwner},
           Case{kMkDir, entry("/d", "new") + kNothing, write | execute},
           Case{kRename, entry("/d", "new") + entry("/d", "old"), write | execute | remove},
           Case{kRmDir, entry("/d", "old"), write | execute | remove},
       }) {
    const std::string before = snapshot();
    for (std::uint32_t bit = read; bit <= changeOwner; bit <<= 1U) {
      if ((c.takes & bit) == 0) continue;
      mine = c.takes & ~bit;
      const bool isOfOwners = bit == remove || bit == changeAttributes || bit == changeOwner;
      EXPECT_EQ(statusOf(c.procedure, c.arguments), isOfOwners ? kNotOwner : kDenied)
          << c.procedure;
    }
    EXPECT_EQ(snapshot(), before);
    mine = c.takes;
    EXPECT_EQ(statusOf(c.procedure, c.arguments), kOk) << c.procedure;
  }
  mine = read;
  EXPECT_EQ(accessTo("/d"), 0x01U);
  mine = write | execute;
  EXPECT_EQ(accessTo("/d"), 0x1EU);
  EXPECT_EQ(accessTo("/e"), 0U) << "it throws";
  become(kCallers[3]);
  EXPECT_EQ(accessTo("/d"), 0U) << "root";
}

}  // namespace
}  // namespace nfslib::testing
