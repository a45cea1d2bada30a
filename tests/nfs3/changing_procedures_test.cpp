#include "support/nfs3_fixture.h"

#include <array>
#include <functional>
#include <string>
#include <utility>
#include <vector>

// SETATTR, WRITE, COMMIT, CREATE, MKDIR, SYMLINK, REMOVE, RMDIR, RENAME and LINK.

namespace nfslib::testing {
namespace {

using ::testing::Contains;

constexpr unsigned kExists = 17;
constexpr unsigned kNoSpace = 28;
constexpr unsigned kNotEmpty = 66;
constexpr std::uint64_t kZeroVerifier = 0;
enum CreateMode : unsigned { kUnchecked, kGuarded, kExclusive };

// sattr3
const std::string kNothing = wire(0U, 0U, 0U, 0U, 0U, 0U);
std::string mode(unsigned bits) { return wire(true, bits, 0U, 0U, 0U, 0U, 0U); }
std::string size(std::uint64_t bytes) { return wire(0U, 0U, 0U, true, bytes, 0U, 0U); }
const std::string kNoGuard = wire(false);

// The same words, whatever blanks are between them: `expected` may be put together of pieces.
MATCHER_P(Words, expected, "") {
  const auto plain = [](std::string text) {
    std::erase(text, ' ');
    return text;
  };
  return plain(arg) == plain(expected);
}

class ChangingProceduresTest : public Nfs3Test {
 protected:
  ChangingProceduresTest() : ChangingProceduresTest(256U << 20U) {}
  explicit ChangingProceduresTest(std::uint64_t capacity) : Nfs3Test(capacity) {
    dir("/d");
    dir("/e");
    dir("/e/full");
    dir("/empty");
    file("/d/f", "content");
    file("/e/full/g", "g");
    for (const char* path : {"/d", "/e", "/e/full", "/d/f", "/e/full/g"}) age(path);
  }

  // Moves the times into the past, so that a change moves them.
  void age(const std::string& path) {
    MetaData md = attributes(path);
    md.accessTime = md.modifyTime = 1000;
    const auto parent = parentOf(path);
    const std::string name = NfsPath(path).getFileName();
    if (isType(md, FileType::Directory)) {
      parent->OpenSubdir(name)->SetMetaData(md);
    } else {
      parent->OpenFile(name)->SetMetaData(md);
    }
  }
  std::string content(const std::string& path) {
    std::string text(attributes(path).size, '?');
    parentOf(path)->OpenFile(NfsPath(path).getFileName())->Read(0, text.data(), text.size());
    return text;
  }
  bool exists(const std::string& path) {
    return parentOf(path)->TryGetEntryByName(NfsPath(path).getFileName()).has_value();
  }
  // wcc_data: `before` as it was, and what the object has now.
  std::string wcc(const nfs3::fattr3& before, const std::string& path) {
    return wire(nfs3::WccData{nfs3::PreOpAttr(before), attributesOf(path)});
  }
  void failWith(const char* operation, std::function<void()> fail) {
    host.onCall = [=](std::string_view called) {
      if (called == operation) fail();
    };
  }
};

TEST_F(ChangingProceduresTest, WriteReachesTheHostAndTellsWhatChanged) {
  serve(true);
  const auto before = fattrOf("/d/f");
  Reply reply = send(kWrite, wire(handleOf("/d/f"), std::uint64_t{5}, 4U, 0U, std::string("abcd")));
  EXPECT_THAT(reply.body(), Words(wire(kOk) + wcc(before, "/d/f") + wire(4U, 0U, kZeroVerifier)));
  EXPECT_EQ(content("/d/f"), "conteabcd");
  EXPECT_EQ(reply.inputLeft, 0U);
  EXPECT_THAT(log.takeLines(), Contains("dbg writeFile: path [/d/f], offset [5], count [4]"));

  // What was not sent is not written.
  for (const unsigned count : {3U, 5U}) {
    const std::string call =
        wire(handleOf("/d/f"), std::uint64_t{0}, count, 2U, std::string("1234"));
    EXPECT_EQ(send(kWrite, call).acceptStatus, kGarbageArguments);
  }
  EXPECT_EQ(content("/d/f"), "conteabcd");
  // Nor is the host asked for nothing.
  host.takeCalls("Write");
  reply = send(kWrite, wire(handleOf("/d/f"), std::uint64_t{99}, 0U, 1U, 0U));
  EXPECT_THAT(reply.body(),
              Words(wire(kOk) + wcc(fattrOf("/d/f"), "/d/f") + wire(0U, 1U, kZeroVerifier)));
  EXPECT_EQ(host.takeCalls("Write"), 0U);
}

TEST_F(ChangingProceduresTest, WriteTakesOneTransferOfALongRequest) {
  serve(true);
  const auto before = fattrOf("/d/f");
  const std::string data(1'000'000, 'x');
  const Reply reply = send(kWrite, wire(handleOf("/d/f"), std::uint64_t{0}, 1'000'000U, 2U, data));
  EXPECT_THAT(reply.body(),
              Words(wire(kOk) + wcc(before, "/d/f") + wire(786'432U, 2U, kZeroVerifier)));
  EXPECT_EQ(attributes("/d/f").size, 786'432U);
}

TEST_F(ChangingProceduresTest, CommitHasNothingToDo) {
  serve(true);
  const Reply reply = send(kCommit, wire(handleOf("/d/f"), std::uint64_t{0}, 0U));
  EXPECT_THAT(reply.body(), Words(wire(kOk) + wcc(fattrOf("/d/f"), "/d/f") + wire(kZeroVerifier)));
}

TEST_F(ChangingProceduresTest, AFailedWriteIsThatCallsFailureAlone) {
  serve(true);
  failWith("Write", [] { throw INfsException("the disk is broken"); });
  const std::string call = wire(handleOf("/d/f"), std::uint64_t{0}, 1U, 2U, std::string("x"));
  EXPECT_EQ(send(kWrite, call).acceptStatus, kGarbageArguments);
  EXPECT_THAT(log.takeLines(), Contains("err NFS server failed.: the disk is broken"));
  host.onCall = nullptr;
  EXPECT_EQ(send(kWrite, call).body().substr(0, 8), wire(kOk));
}

TEST_F(ChangingProceduresTest, CreateMakesTheFileAndSetsWhatIsNamed) {
  serve(true);
  for (const unsigned how : {kUnchecked, kGuarded, kExclusive}) {
    const std::string name = "new" + std::to_string(how);
    const auto before = fattrOf("/d");
    const std::string rest = how == kExclusive ? "0102030405060708" : mode(0x10000U | 02641U);
    const Reply reply = send(kCreate, wire(handleOf("/d"), name, how) + rest);
    const std::string path = "/d/" + name;
    EXPECT_THAT(reply.body(),
                Words(wire(kOk, nfs3::PostOpHandle{handleOf(path)}, attributesOf(path)) +
                      wcc(before, "/d")));
    EXPECT_THAT(log.takeLines(),
                Contains("dbg createFile: in path [/d], mode [" + std::to_string(how) + "]"));
    EXPECT_EQ(attributes(path).mode == 02641, how != kExclusive);
  }
  EXPECT_EQ(send(kCreate, wire(handleOf("/d"), std::string("n"), 3U)).acceptStatus,
            kGarbageArguments);
}

TEST_F(ChangingProceduresTest, MkDirAndSymlinkMakeWhatTheySay) {
  serve(true);
  auto before = fattrOf("/d");
  const Reply made = send(kMkDir, wire(handleOf("/d"), std::string("sub")) + mode(0750));
  EXPECT_THAT(made.body(),
              Words(wire(kOk, nfs3::PostOpHandle{handleOf("/d/sub")}, attributesOf("/d/sub")) +
                    wcc(before, "/d")));
  EXPECT_EQ(attributes("/d/sub").mode, 0750);
  EXPECT_THAT(log.takeLines(), Contains("dbg makeDirectory: path [/d]"));

  before = fattrOf("/d");
  const Reply linked = send(
      kSymlink, wire(handleOf("/d"), std::string("to")) + kNothing + wire(std::string("../far")));
  EXPECT_THAT(linked.body(),
              Words(wire(kOk, nfs3::PostOpHandle{handleOf("/d/to")}, attributesOf("/d/to")) +
                    wcc(before, "/d")));
  EXPECT_EQ(parentOf("/d/to")->OpenSymlink("to")->GetTarget(), "../far");
  EXPECT_THAT(log.takeLines(), Contains("dbg symlink: path [/d]"));
}

TEST_F(ChangingProceduresTest, LinkAddsAName) {
  serve(true);
  const NfsHandle handle = handleOf("/d/f");
  const auto before = fattrOf("/e");
  const Reply reply = call(kLink, handle, handleOf("/e"), std::string("f2"));
  EXPECT_EQ(attributes("/e/f2").fileId, attributes("/d/f").fileId);
  EXPECT_THAT(reply.body(), Words(wire(kOk, attributesOf("/d/f")) + wcc(before, "/e")));
  EXPECT_THAT(log.takeLines(), Contains("dbg link: path [/e]"));
}

TEST_F(ChangingProceduresTest, RemovalsAndRenamesTellOfTheDirectories) {
  serve(true);
  auto before = fattrOf("/d");
  const auto other = fattrOf("/e");
  Reply reply = call(kRename, handleOf("/d"), std::string("f"), handleOf("/e"), std::string("g"));
  EXPECT_THAT(reply.body(), Words(wire(kOk) + wcc(before, "/d") + wcc(other, "/e")));
  EXPECT_EQ(content("/e/g"), "content");
  EXPECT_THAT(log.takeLines(), Contains("dbg rename: fromPath [/d], toPath [/e]"));

  before = fattrOf("/e");
  reply = call(kRemove, handleOf("/e"), std::string("g"));
  EXPECT_THAT(reply.body(), Words(wire(kOk) + wcc(before, "/e")));
  EXPECT_FALSE(exists("/e/g"));
  EXPECT_THAT(log.takeLines(), Contains("dbg removeFile: path [/e]"));

  before = fattrOf("/");
  reply = call(kRmDir, root, std::string("d"));
  EXPECT_THAT(reply.body(), Words(wire(kOk) + wcc(before, "/")));
  EXPECT_FALSE(exists("/d"));
  EXPECT_THAT(log.takeLines(), Contains("dbg removeDirectory: path [/]"));
}

// Each changing call with a name, what it answers when the host refuses, and the line about it.
TEST_F(ChangingProceduresTest, RefusalsHaveTheirStatusAndTheWholeBody) {
  serve(true);
  const NfsHandle d = handleOf("/d");
  const NfsHandle e = handleOf("/e");
  const NfsHandle f = handleOf("/d/f");
  const std::string taken = "f", full = "full", missing = "x";
  const auto here = [&] { return wcc(fattrOf("/d"), "/d"); };
  const auto there = [&] { return wcc(fattrOf("/e"), "/e"); };
  const struct {
    unsigned procedure;
    std::string arguments;
    std::string body;
    const char* line;
  } cases[] = {
      {kCreate, wire(d, taken, 1U) + kNothing, wire(kExists) + here(),
       "dbg Failed to create file [f] in directory [/d]: ["},
      {kMkDir, wire(d, taken) + kNothing, wire(kExists) + here(),
       "dbg Failed to create subdirectory [/d/f]: ["},
      {kSymlink, wire(d, taken) + kNothing + wire(missing), wire(kExists) + here(),
       "dbg Failed to create symlink [/d/f]: ["},
      {kLink, wire(f, d, taken), wire(kNoEntry, attributesOf("/d/f")) + here(),
       "dbg Cannot create link [/d/f] on file [/d/f]: ["},
      {kLink, wire(e, d, missing), wire(kNoEntry, attributesOf("/e")) + here(),
       "dbg Cannot create link [/d/x] on file [/e]: ["},
      {kRemove, wire(d, missing), wire(kNoEntry) + here(), "dbg Cannot remove file [/d/x]: ["},
      {kRemove, wire(e, full), wire(kNoEntry) + there(), "dbg Cannot remove file [/e/full]: ["},
      {kRmDir, wire(e, full), wire(kNotEmpty) + there(), "dbg Cannot remove file [/e/full]: ["},
      {kRmDir, wire(d, missing), wire(kNoEntry) + here(), "dbg Cannot remove file [/d/x]: ["},
      {kRename, wire(d, missing, e, missing), wire(kNoEntry) + here() + there(),
       "dbg Failed to rename entry [/d/x] to [/e/x]"},
      {kRename, wire(d, taken, e, full), wire(kNoEntry) + here() + there(),
       "dbg Failed to rename entry [/d/f] to [/e/full]"},
      {kRename, wire(root, std::string("e"), e, missing),
       wire(kNoEntry) + wcc(fattrOf("/"), "/") + there(),
       "dbg Failed to rename entry [/e] to [/e/x]"},
  };
  for (const auto& refused : cases) {
    log.takeLines();
    EXPECT_THAT(send(refused.procedure, refused.arguments).body(), Words(refused.body))
        << refused.line;
    EXPECT_THAT(log.takeLines(), Contains(::testing::StartsWith(refused.line)));
  }
  EXPECT_EQ(content("/d/f"), "content");
  EXPECT_TRUE(exists("/e/full/g"));
}

TEST_F(ChangingProceduresTest, NoHostIsAskedToChangeAnImpossibleName) {
  serve(true);
  const NfsHandle d = handleOf("/d");
  const NfsHandle f = handleOf("/d/f");
  const std::string good = "f";
  constexpr std::array kChanges{"CreateFile", "CreateSubdir", "CreateSymlink", "Link",
                                "MoveEntry",  "RemoveFile",   "RemoveSubdir"};
  for (const std::string& name : {std::string(), std::string("."), std::string(".."),
                                  std::string("a/b"), std::string("/"), std::string("a\0b", 3)}) {
    const std::pair<unsigned, std::string> calls[] = {
        {kCreate, wire(d, name, 0U) + kNothing},
        {kMkDir, wire(d, name) + kNothing},
        {kSymlink, wire(d, name) + kNothing + wire(good)},
        {kLink, wire(f, d, name)},
        {kRemove, wire(d, name)},
        {kRmDir, wire(d, name)},
        {kRename, wire(d, name, d, good)},
        {kRename, wire(d, good, d, name)},
    };
    for (const auto& [procedure, arguments] : calls) {
      const bool creates = procedure == kCreate || procedure == kMkDir || procedure == kSymlink;
      EXPECT_EQ(send(procedure, arguments).body().substr(0, 8), wire(creates ? kExists : kNoEntry))
          << procedure << " [" << name << "]";
    }
  }
  for (const char* change : kChanges) EXPECT_EQ(host.takeCalls(change), 0U) << change;
  EXPECT_EQ(content("/d/f"), "content");
}

TEST_F(ChangingProceduresTest, SetAttrAppliesWhatIsNamedAndAnswersThat) {
  serve(true);
  const auto before = fattrOf("/d/f");
  auto after = before;
  after.mode = 0640;
  after.size = after.used = 3;
  const std::string sattr = wire(true, 0640U, 0U, 0U, true, std::uint64_t{3}, 0U, 0U);
  // The guard names another ctime, which nobody compares.
  Reply reply = send(kSetAttr, wire(handleOf("/d/f")) + sattr + wire(true, 1U, 2U));
  EXPECT_THAT(reply.body(),
              Words(wire(kOk, nfs3::WccData{nfs3::PreOpAttr(before), nfs3::PostOpAttr{after}})));
  EXPECT_EQ(content("/d/f"), "con");
  EXPECT_EQ(attributes("/d/f").mode, 0640);
  EXPECT_THAT(log.takeLines(), Contains("dbg setAttributes: path [/d/f]"));
  // The next to ask sees the times that moved with it too.
  reply = call(kGetAttr, handleOf("/d/f"));
  EXPECT_THAT(reply.body(), Words(wire(kOk, fattrOf("/d/f"))));
  EXPECT_NE(attributes("/d/f").modifyTime, 1000U);

  failWith("SetMetaData", [] { throw INfsException("not yours"); });
  EXPECT_EQ(send(kSetAttr, wire(handleOf("/d")) + mode(0700) + kNoGuard).acceptStatus,
            kGarbageArguments);
}

// Attributes may have been kept since before somebody else made the file longer.
TEST_F(ChangingProceduresTest, SetAttrDoesNotUndoWhatOthersWrote) {
  serve(true);
  call(kGetAttr, handleOf("/d/f"));
  parentOf("/d/f")->OpenFile("f")->Write(0, "a longer content", 16);
  send(kSetAttr, wire(handleOf("/d/f")) + mode(0600) + kNoGuard);
  EXPECT_EQ(content("/d/f"), "a longer content");
}

TEST_F(ChangingProceduresTest, LackOfSpaceIsToldWithTheWholeBody) {
  serve(true);
  const NfsHandle d = handleOf("/d");
  const NfsHandle f = handleOf("/d/f");
  const std::string name = "new", old = "f";
  const auto here = [&] { return wcc(fattrOf("/d"), "/d"); };
  const auto bare = [&] { return wcc(fattrOf("/d/f"), "/d/f"); };
  auto grown = fattrOf("/d/f");
  grown.size = grown.used = 99;
  const struct {
    const char* operation;
    unsigned procedure;
    std::string arguments;
    std::string body;
  } cases[] = {
      {"Write", kWrite, wire(f, std::uint64_t{0}, 4U, 1U, std::string("abcd")),
       bare() + wire(0U, 1U, kZeroVerifier)},
      {"CreateFile", kCreate, wire(d, name, 0U) + kNothing, here()},
      {"CreateSubdir", kMkDir, wire(d, name) + kNothing, here()},
      {"CreateSymlink", kSymlink, wire(d, name) + kNothing + wire(name), here()},
      {"Link", kLink, wire(f, d, name), wire(attributesOf("/d/f")) + here()},
      {"RemoveFile", kRemove, wire(d, old), here()},
      {"RemoveSubdir", kRmDir, wire(root, std::string("empty")), wcc(fattrOf("/"), "/")},
      {"MoveEntry", kRename, wire(d, old, d, name), here() + here()},
      {"SetMetaData", kSetAttr, wire(f) + size(99) + kNoGuard,
       wire(nfs3::WccData{nfs3::PreOpAttr(fattrOf("/d/f")), nfs3::PostOpAttr{grown}})},
  };
  for (const auto& full : cases) {
    failWith(full.operation, [] { throw OutOfSpaceNfsException("full"); });
    EXPECT_THAT(send(full.procedure, full.arguments).body(), Words(wire(kNoSpace) + full.body))
        << full.operation;
  }
}

// A host that is really full, filled through the protocol.
class FullTreeTest : public ChangingProceduresTest {
 protected:
  FullTreeTest() : ChangingProceduresTest(1U << 20U) {}

  unsigned status(unsigned procedure, const std::string& arguments) const {
    return static_cast<unsigned>(
        std::stoul(send(procedure, arguments).body().substr(0, 8), nullptr, 16));
  }
};

TEST_F(FullTreeTest, StaysIntactAndTakesAgainWhatWasFreed) {
  serve(true);
  const NfsHandle d = handleOf("/d");
  const std::string block(65'536, 'b');
  const auto write = [&](std::uint64_t offset) {
    return status(kWrite, wire(handleOf("/d/f"), offset, 65'536U, 2U, block));
  };
  std::uint64_t end = 0;
  while (write(end) == kOk) end += block.size();
  EXPECT_GT(end, 10 * block.size());
  EXPECT_EQ(write(end), kNoSpace);
  EXPECT_EQ(attributes("/d/f").size, end);

  int files = 0;
  const auto create = [&] {
    return status(kCreate, wire(d, "n" + std::to_string(files), 1U) + kNothing);
  };
  while (create() == kOk) ++files;
  EXPECT_GT(files, 0);
  EXPECT_EQ(create(), kNoSpace);
  EXPECT_EQ(status(kMkDir, wire(d, std::string("m")) + kNothing), kNoSpace);
  EXPECT_EQ(status(kSymlink, wire(d, std::string("s")) + kNothing + wire(std::string("t"))),
            kNoSpace);
  EXPECT_EQ(status(kLink, wire(handleOf("/d/f"), d, std::string("l"))), kNoSpace);
  EXPECT_EQ(content("/d/f").substr(0, block.size()), block);

  // A rename needs no space, and what is removed comes back.
  EXPECT_EQ(status(kRename, wire(d, std::string("f"), handleOf("/e"), std::string("moved"))), kOk);
  EXPECT_EQ(status(kRemove, wire(handleOf("/e"), std::string("moved"))), kOk);
  EXPECT_EQ(create(), kOk);
  EXPECT_EQ(status(kWrite, wire(handleOf("/d/n0"), std::uint64_t{0}, 65'536U, 2U, block)), kOk);
}

}  // namespace
}  // namespace nfslib::testing
