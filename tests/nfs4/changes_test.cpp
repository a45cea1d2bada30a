#include "common/clock.h"
#include "support/nfs4_fixture.h"

#include <array>

// CREATE, REMOVE, RENAME and LINK.

namespace nfslib::testing {
namespace {

using ::testing::Contains;
using ::testing::StartsWith;

constexpr std::uint64_t kLongAgo = 1000;
const Bitmap kLinkCount{0, 1U << 3U};
const Bitmap kChange{1U << 3U};

class ChangesTest : public BothVersionsTest {
 protected:
  explicit ChangesTest(std::uint64_t capacity = 256U << 20U) : BothVersionsTest(capacity) {
    dir("/d");
    dir("/e");
    dir("/e/full");
    file("/d/f", "content");
    file("/e/full/g", "g");
    link("/d/l", "f");
    for (const char* path : {"/d", "/e"}) {
      MetaData md = attributes(path);
      md.modifyTime = kLongAgo;
      directoryAt(NfsPath(path))->SetMetaData(md);
    }
  }

  // Runs it in the directory; `from` is the saved object.
  Answer change(const std::string& path, const Compound& operation, const std::string& from = "") {
    Compound compound;
    if (!from.empty()) compound.put(handleOf(from)).add(op::kSaveFh);
    return run(compound.put(handleOf(path)).add(operation));
  }
  // change_info4 of a directory that was not changed for long, until now.
  bool isChange(const Answer& answer, std::size_t place = 0) const {
    const std::uint64_t now = utility::currentSeconds();
    const std::uint64_t after = numberAt(answer, place + 12);
    return numberAt(answer, place + 4) == kLongAgo && after <= now && after + 60 > now;
  }
  static Compound creating(unsigned type, const std::string& name,
                           const Raw& attributes = kNoAttributes) {
    if (type == 5) return Compound().add(op::kCreate, type, "target"s, name, attributes);
    if (type == 3 || type == 4) return Compound().add(op::kCreate, type, 1U, 2U, name, attributes);
    return Compound().add(op::kCreate, type, name, attributes);
  }
  static Compound removing(const std::string& name) { return Compound().add(op::kRemove, name); }
  static Compound linking(const std::string& name) { return Compound().add(op::kLink, name); }
  static Compound renaming(const std::string& from, const std::string& to) {
    return Compound().add(op::kRename, from, to);
  }
  // Sees the tree after every change of the test's own session.
  unsigned seenByAnother(const std::string& path, const std::string& name) {
    return run(other, at(path).lookup(name)).status;
  }
  void serve(bool writable = true) {
    BothVersionsTest::serve(writable);
    other = makeSession("other");
  }
  ClientSession other;
};
INSTANTIATE_TEST_SUITE_P(Both, ChangesTest, ::testing::Values(0U, 1U), minorVersionName);

TEST_P(ChangesTest, CreateMakesDirectoriesAndLinksAndMovesThere) {
  serve();
  EXPECT_EQ(seenByAnother("/d", "made"), kNoEntry);
  const Raw mode = fattr4({0, 2}, 0700U);
  const Answer made = change("/d", creating(2, "made", mode));
  EXPECT_TRUE(isChange(made));
  EXPECT_EQ(made.body().substr(45), wire(Bitmap{0, 2}));
  EXPECT_EQ(run(Compound().add(op::kGetFh)).body(), wire(handleOf("/d/made")));
  EXPECT_EQ(attributes("/d/made").mode, 0700);
  EXPECT_EQ(seenByAnother("/d", "made"), kOk);
  EXPECT_GT(numberAt(run(other, at("/d").getAttr(kChange)), 12), kLongAgo);

  EXPECT_EQ(change("/d", creating(5, "soft").add(op::kReadLink)).body(), wire("target"s));
  EXPECT_EQ(change("/d", creating(2, "made")).status, kExists);
  EXPECT_EQ(change("/d", creating(5, "f")).status, kExists);
  EXPECT_EQ(change("/d/f", creating(2, "x")).status, kNotDirectory);
  EXPECT_EQ(change("/d", creating(2, std::string(257, 'x'))).status, kTooLong);
  EXPECT_EQ(change("/d", creating(2, std::string(255, 'x'))).status, kOk);
  for (const unsigned type : {0U, 1U, 3U, 4U, 6U, 7U, 99U}) {
    EXPECT_EQ(change("/d", creating(type, "x")).status, kBadType) << type;
  }
  host.onCall = [](std::string_view name) {
    if (name == "CreateSubdir") throw INfsException("The disk is gone.");
  };
  log.takeLines();
  EXPECT_EQ(change("/d", creating(2, "x")).status, kIo);
  EXPECT_THAT(log.takeLines(), Contains("warn Failed to create filesystem object [x] in directory "
                                        "[/d]: [The disk is gone.]"));
}

TEST_P(ChangesTest, RemoveTakesWhatIsThereAndEmpty) {
  serve();
  const NfsHandle gone = handleOf("/d/f");
  EXPECT_EQ(seenByAnother("/d", "f"), kOk);
  EXPECT_TRUE(isChange(change("/d", removing("f"))));
  EXPECT_EQ(seenByAnother("/d", "f"), kNoEntry);
  EXPECT_NE(run(other, Compound().put(gone)).status, kOk);
  EXPECT_EQ(change("/d", removing("f")).status, kNoEntry);
  EXPECT_EQ(change("/e", removing("full")).status, kNotEmpty);
  EXPECT_EQ(change("/e/full", removing("g")).status, kOk);
  EXPECT_TRUE(isChange(change("/e", removing("full"))));
  EXPECT_EQ(change("/d", removing("l").add(op::kGetFh)).status, kOk);
  EXPECT_EQ(change("/d", removing(std::string(257, 'x'))).status, kTooLong);
  EXPECT_EQ(change("/d", creating(2, "x").put(handleOf("/d")).add(removing("x"))).status, kOk);
  file("/d/h", "");
  EXPECT_EQ(change("/d/h", removing("x")).status, kNotDirectory);
  host.onCall = [](std::string_view name) {
    if (name == "RemoveFile") throw INfsException("The disk is gone.");
  };
  log.takeLines();
  EXPECT_EQ(change("/d", removing("h")).status, kIo);
  EXPECT_THAT(log.takeLines(),
              Contains("warn Unable to remove directory entry: [The disk is gone.]"));
}

TEST_P(ChangesTest, RenameMovesTheObjectWithItsHandles) {
  serve();
  const NfsHandle inside = handleOf("/e/full/g");
  const NfsHandle replaced = handleOf("/d/l");
  EXPECT_EQ(seenByAnother("/e", "full"), kOk);
  const Answer moved = change("/d", renaming("full", "moved"), "/e");
  EXPECT_TRUE(isChange(moved) && isChange(moved, 20));
  EXPECT_EQ(seenByAnother("/e", "full"), kNoEntry);
  EXPECT_EQ(seenByAnother("/d", "moved"), kOk);
  EXPECT_EQ(run(other, Compound().put(inside).getAttr(kSize)).body(), sizeIs(1));

  // Within a directory, over a name that is there.
  const Answer within = change("/d", renaming("f", "l"), "/d");
  EXPECT_EQ(within.status, kOk);
  EXPECT_EQ(numberAt(within, 12), numberAt(within, 32));
  EXPECT_NE(run(other, Compound().put(replaced).getAttr({})).status, kOk);
  EXPECT_EQ(contentOf("/d/l"), "content");

  EXPECT_EQ(change("/d", renaming("l", ""), "/d").status, kInvalid);
  EXPECT_EQ(change("/d", renaming("l", std::string(257, 'x')), "/d").status, kTooLong);
  EXPECT_EQ(change("/d/l", renaming("l", "x"), "/d").status, kNotDirectory);
  EXPECT_EQ(change("/d", renaming("l", "x"), "/d/l").status, kNotDirectory);
  log.takeLines();
  EXPECT_EQ(change("/e", renaming("missing", "x"), "/d").status, kIo);
  EXPECT_THAT(log.takeLines(), Contains("warn Failed to rename entry [/d/missing] to [/e/x]"));
}

TEST_P(ChangesTest, OldNameCanBeTooLongAsWell) {
  serve();
  EXPECT_EQ(change("/d", renaming(std::string(257, 'x'), "x"), "/d").status, kTooLong);
}

TEST_P(ChangesTest, SomethingHasToBeSaved) {
  serve();
  EXPECT_EQ(change("/d", renaming("f", "x")).status, kNoFileHandle);
  EXPECT_EQ(change("/d", linking("x")).status, kNoFileHandle);
}

TEST_P(ChangesTest, LinkNamesTheSavedFile) {
  serve();
  const NfsHandle handle = handleOf("/d/f");
  EXPECT_EQ(run(other, at("/d/f").getAttr(kLinkCount)).body(), wire(fattr4(kLinkCount, 1U)));
  EXPECT_TRUE(isChange(change("/e", linking("hard"), "/d/f")));
  EXPECT_EQ(attributes("/e/hard").fileId, handle.objectId);
  EXPECT_EQ(run(other, Compound().put(handle).getAttr(kLinkCount)).body(),
            wire(fattr4(kLinkCount, 2U)));
  EXPECT_EQ(change("/d", removing("f")).status, kOk);
  EXPECT_EQ(run(other, at("/e").lookup("hard").getAttr(kLinkCount)).body(),
            wire(fattr4(kLinkCount, 1U)));
  EXPECT_EQ(change("/d", linking("x"), "/e/full").status, kIsDirectory);
  EXPECT_EQ(change("/d", linking("x"), "/d/l").status, kIsLink);
  EXPECT_EQ(change("/d/l", linking("x"), "/e/hard").status, kNotDirectory);
  EXPECT_EQ(change("/d", linking(std::string(257, 'x')), "/e/hard").status, kTooLong);
  log.takeLines();
  EXPECT_EQ(change("/d", linking("l"), "/e/hard").status, kIo);
  EXPECT_THAT(log.takeLines(),
              Contains(StartsWith("warn Cannot create link [l] on entry [/e/hard]: [")));
}

TEST_P(ChangesTest, NamesThatLeadElsewhereNeverReachTheHost) {
  serve();
  constexpr std::array kChanging{"CreateSubdir", "CreateSymlink", "RemoveFile", "RemoveSubdir",
                                 "MoveEntry",    "Link",          "SetMetaData"};
  handleOf("/d/f");
  for (const char* name : kChanging) host.takeCalls(name);
  for (const std::string& name : {""s, "."s, ".."s, "sub/f"s, "/f"s, "f/"s, "f\0"s, "\0"s}) {
    EXPECT_NE(change("/d", creating(2, name)).status, kOk) << name;
    EXPECT_NE(change("/d", creating(5, name)).status, kOk) << name;
    EXPECT_NE(change("/d", removing(name)).status, kOk) << name;
    EXPECT_NE(change("/d", renaming(name, "x"), "/d").status, kOk) << name;
    EXPECT_NE(change("/d", renaming("f", name), "/d").status, kOk) << name;
    EXPECT_NE(change("/d", linking(name), "/d/f").status, kOk) << name;
  }
  for (const char* name : kChanging) EXPECT_EQ(host.takeCalls(name), 0U) << name;
}

class FullTreeTest : public ChangesTest {
 protected:
  FullTreeTest() : ChangesTest(6 * 512 + 512) {}
};
INSTANTIATE_TEST_SUITE_P(Both, FullTreeTest, ::testing::Values(0U, 1U), minorVersionName);

TEST_P(FullTreeTest, SaysSo) {
  serve();
  EXPECT_EQ(change("/d/f", Compound().write(0, std::string(8000, 'x'))).status, kNoSpace);
  EXPECT_EQ(change("/d", creating(2, "x")).status, kNoSpace);
  EXPECT_EQ(change("/d", creating(5, "x")).status, kNoSpace);
  EXPECT_EQ(change("/d", Compound().open(unchecked(), byName("x"))).status, kNoSpace);
  EXPECT_EQ(change("/d", removing("l")).status, kOk);
  EXPECT_EQ(change("/d", creating(2, "x")).status, kOk);
}

}  // namespace
}  // namespace nfslib::testing
