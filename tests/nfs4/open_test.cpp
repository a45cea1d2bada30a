#include "support/nfs4_fixture.h"

// OPEN, CLOSE, READ and WRITE.

namespace nfslib::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

class OpenTest : public BothVersionsTest {
 protected:
  OpenTest() {
    dir("/d");
    dir("/d/sub");
    file("/d/f", "content");
    file("/d/g", "other");
    link("/d/l", "f");
  }
  Compound openAt(const std::string& path) { return at(path).open(kNoCreate, kByHandle); }
  struct Part {
    bool eof = false;
    std::string text;
  };
  static Part partIn(const Answer& answer) {
    Part part;
    MemoryStream in;
    setInput(in, answer.body());
    in >> part.eof >> part.text;
    return part;
  }
  // The text that can be read, or the status.
  std::string read(const std::string& path) {
    const Answer answer = run(at(path).read());
    return answer.status == kOk ? partIn(answer).text : std::to_string(answer.status);
  }
};
INSTANTIATE_TEST_SUITE_P(Both, OpenTest, ::testing::Values(0U, 1U), minorVersionName);

TEST_P(OpenTest, EveryClaimOpensReadsAndCloses) {
  serve();
  const std::string zeros = "00000000 00000000 00000000";
  struct Case {
    const char* name;
    bool isByName;
    Raw claim;
  };
  for (const auto& [name, isByName, claim] : {
           Case{"CLAIM_NULL", true, byName("f")},
           Case{"CLAIM_PREVIOUS", false, raw(1U, 2U)},
           Case{"CLAIM_DELEGATE_CUR", true, raw(2U, kNoState, "f"s)},
           Case{"CLAIM_DELEGATE_PREV", true, raw(3U, "f"s)},
           Case{"CLAIM_FH", false, kByHandle},
           Case{"CLAIM_DELEG_CUR_FH", false, raw(5U, kNoState)},
           Case{"CLAIM_DELEG_PREV_FH", false, raw(6U)},
       }) {
    const std::uint64_t change = attributes("/d/f").modifyTime;
    Compound compound = at(isByName ? "/d" : "/d/f").open(kNoCreate, claim).add(op::kGetFh);
    log.takeLines();
    const Answer answer = run(compound.read(2, 4).read(2, 5).read(9).close().read());
    ASSERT_THAT(answer.statuses(), ElementsAre(kOk, kOk, kOk, kOk, kOk, kOk, kOk, kNoFileHandle));
    EXPECT_EQ(answer.results[1].body(), "00000000 " + zeros + " 00000000 " + wire(change, change) +
                                            " 00000000 00000000 00000000");
    EXPECT_EQ(answer.results[2].body(), wire(handleOf("/d/f")));
    EXPECT_EQ(answer.results[3].body(), "00000000 00000004 6e74656e");
    EXPECT_EQ(answer.results[4].body(), "00000001 00000005 6e74656e 74000000");
    EXPECT_EQ(answer.results[5].body(), "00000001 00000000");
    EXPECT_EQ(answer.results[6].body(), "ffffffff " + zeros);
    EXPECT_THAT(log.takeLines(),
                Contains("dbg Open: sequenceId [0], type [no_create], claim type [" +
                         std::string(name) + "], name [" + (isByName ? "f" : "") + "]"));
  }
  EXPECT_EQ(status(at("/d/f").open(kNoCreate, raw(7U))), kBadXdr);
}

TEST_P(OpenTest, WhatCannotBeOpened) {
  serve(true);
  struct Case {
    const char* path;
    Raw how, claim;
    unsigned status;
  };
  for (const auto& [path, how, claim, expected] : {
           Case{"/d/f", kNoCreate, byName("x"), kNotDirectory},
           Case{"/d/f", unchecked(), byName("x"), kNotDirectory},
           Case{"/d", kNoCreate, byName(""), kInvalid},
           Case{"/d", unchecked(), byName(""), kInvalid},
           Case{"/d", kNoCreate, byName(std::string(257, 'x')), kTooLong},
           Case{"/d", guarded(), byName(std::string(257, 'x')), kTooLong},
           Case{"/d", kNoCreate, byName("missing"), kNoEntry},
           Case{"/d", kNoCreate, byName(".."), kNoEntry},
           Case{"/d", kNoCreate, byName("sub"), kIsDirectory},
           Case{"/d", unchecked(), byName("sub"), kIsDirectory},
           Case{"/d", kNoCreate, byName("l"), kIsLink},
           Case{"/d", unchecked(), byName("l"), kIsLink},
           Case{"/d", kNoCreate, kByHandle, kIsDirectory},
           Case{"/d/l", kNoCreate, kByHandle, kIsLink},
           Case{"/d", raw(1U, 4U), byName("x"), kInvalid},
           Case{"/d", guarded(), byName("f"), kExists},
           Case{"/d", exclusive(1), byName("f"), kExists},
           Case{"/d", guarded(fattr4({2}, 1U)), byName("new"), kUnsupported},
       }) {
    EXPECT_EQ(status(at(path).open(how, claim)), expected) << path << claim.words;
    EXPECT_EQ(read("/d/f"), "10020");
  }
  for (const std::string& name : {"."s, ".."s, "a/b"s, "/a"s, "a\0b"s}) {
    for (const Raw& how : {unchecked(), guarded(), exclusive(5)}) {
      EXPECT_NE(status(at("/d").open(how, byName(name))), kOk) << name;
    }
  }
  EXPECT_EQ(host.takeCalls("CreateFile"), 0U);
  EXPECT_EQ(status(at("/d").open(guarded(fattr4({0, 0, 0})), byName("new"))), kUnsupported);
  server4.registerProgram(kProgram, std::make_unique<nfs::Nfs4Program>(service, false));
  EXPECT_EQ(status(at("/d").open(unchecked(), byName("f"))), kReadOnly);
  EXPECT_EQ(status(at("/d").open(raw(1U, 4U), byName("f"))), kReadOnly);
  EXPECT_EQ(status(at("/d").open(kNoCreate, byName("f"))), kOk);
}

TEST_P(OpenTest, CreateModes) {
  serve(true);
  const Bitmap modeOnly{0, 2};
  const auto open = [&](const Raw& how, const std::string& name) {
    return run(at("/d").open(how, byName(name)).add(op::kGetFh));
  };
  const auto appliedBy = [](const Answer& answer) {
    return answer.results.at(1).body().substr(45 + 36 + 18 - 9);
  };
  const Answer made = open(unchecked(fattr4(modeOnly, 0640U)), "new");
  EXPECT_EQ(made.body(), wire(handleOf("/d/new")));
  EXPECT_EQ(appliedBy(made), wire(modeOnly, 0U));
  EXPECT_EQ(attributes("/d/new").mode, 0640);
  EXPECT_EQ(run(at("/d/new").write(0, "data")).status, kOk);
  // A name that is there is opened as it is, or cut.
  const Raw sized = fattr4({0x10, 2}, std::uint64_t{2}, 0600U);
  const Raw cut = fattr4({0x10, 2}, std::uint64_t{0}, 0600U);
  EXPECT_EQ(open(unchecked(sized), "new").status, kOk);
  EXPECT_EQ(contentOf("/d/new"), "data");
  EXPECT_EQ(appliedBy(open(unchecked(cut), "new")), wire(kSize, 0U));
  EXPECT_EQ(contentOf("/d/new"), "");
  EXPECT_EQ(attributes("/d/new").mode, 0640);

  EXPECT_EQ(open(guarded(sized), "guarded").status, kOk);
  EXPECT_EQ(attributes("/d/guarded").size, 2U);
  EXPECT_EQ(open(guarded(), "guarded").status, kExists);

  const auto exclusive41 = [&](std::uint64_t verifier) {
    return raw(1U, 3U, verifier, fattr4(modeOnly, 0444U));
  };
  EXPECT_EQ(open(exclusive(7), "once").status, kOk);
  EXPECT_EQ(open(exclusive(7), "once").body(), wire(handleOf("/d/once")));
  EXPECT_EQ(open(exclusive(8), "once").status, kExists);
  EXPECT_EQ(open(exclusive41(7), "newer").status, kOk);
  EXPECT_EQ(attributes("/d/newer").mode, 0444);
  EXPECT_EQ(open(exclusive41(7), "newer").status, kOk);
  EXPECT_EQ(open(exclusive41(9), "newer").status, kExists);
}

TEST_P(OpenTest, OpenStateIsTheFilesOwnAndIsCounted) {
  serve();
  EXPECT_EQ(read("/d/f"), "10020");
  EXPECT_EQ(status(openAt("/d/f")), kOk);
  // That another file is open opens this one not, nor the other way round.
  EXPECT_EQ(status(openAt("/d/f").put(handleOf("/d/g")).read()), kNoFileHandle);
  EXPECT_EQ(read("/d/f"), "content");
  EXPECT_EQ(status(openAt("/d/g")), kOk);
  EXPECT_EQ(read("/d/f"), "content");
  EXPECT_EQ(read("/d/g"), "other");
  EXPECT_EQ(run(at("/").lookup("d").lookup("f").read()).status, kOk);
  // Three OPENs of the one by now, for two owners: each closes it once.
  EXPECT_EQ(status(at("/d").open(kNoCreate, byName("f"), "another")), kOk);
  EXPECT_EQ(status(at("/d/g").close()), kOk);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(read("/d/f"), "content");
    EXPECT_EQ(status(at("/d/f").close()), kOk);
  }
  EXPECT_EQ(read("/d/f"), "10020");
  EXPECT_EQ(read("/d/g"), "10020");
  EXPECT_EQ(status(at("/d").read()), kIsDirectory);
  EXPECT_EQ(status(at("/d/l").read()), kIsLink);
}

// What a client opens is kept until it is closed, so there is an end to it.
TEST_P(OpenTest, OwnersOfAFileAreNotWithoutNumberOrLength) {
  serve();
  const auto openFor = [&](const std::string& owner) {
    return status(at("/d").open(kNoCreate, byName("f"), owner));
  };
  EXPECT_EQ(openFor(std::string(1025, 'o')), 10036U);
  for (int i = 0; i < 1024; ++i) ASSERT_EQ(openFor("owner" + std::to_string(i)), kOk);
  EXPECT_EQ(openFor("one more"), 10018U);
  EXPECT_EQ(openFor("owner7"), kOk);
  EXPECT_EQ(status(at("/d/f").close()), kOk);
  EXPECT_EQ(openFor("one more"), kOk);
  // The session of minor version 0 lasts.
  for (int i = 0; i < 1024; ++i) EXPECT_EQ(status(at("/d/f").close()), kOk);
  EXPECT_EQ(read("/d/f"), "10020");
}

TEST_P(OpenTest, SessionsCountForThemselves) {
  serve(true);
  ClientSession other = makeSession("other");
  EXPECT_EQ(status(openAt("/d/f")), kOk);
  EXPECT_EQ(run(other, at("/d/f").read()).status, kNoFileHandle);
  EXPECT_EQ(run(other, openAt("/d/f").close()).status, kOk);
  EXPECT_EQ(run(other, at("/d/f").write(7, "!")).status, kOk);
  EXPECT_EQ(read("/d/f"), "content!");
}

// Whatever was open when the object was saved.
TEST_P(OpenTest, SavedObjectIsAsOpenAsItsFile) {
  serve();
  const Compound back = Compound().add(op::kRestoreFh).read();
  EXPECT_EQ(status(at("/d/f").add(op::kSaveFh).open(kNoCreate, kByHandle).add(back)), kOk);
  EXPECT_EQ(status(at("/d/f").add(op::kSaveFh).close().add(back)), kNoFileHandle);
}

TEST_P(OpenTest, ReadGoesOnWhereAReplyEnds) {
  std::string content;
  for (unsigned i = 0; content.size() < 2'500'000; ++i) content += std::to_string(i);
  file("/d/big", content);
  serve();
  EXPECT_EQ(status(openAt("/d/big")), kOk);
  std::string seen;
  for (bool eof = false; !eof;) {
    const Answer answer = run(at("/d/big").read(seen.size(), 16U << 20U));
    ASSERT_EQ(answer.status, kOk);
    const Part part = partIn(answer);
    ASSERT_FALSE(part.text.empty());
    seen += part.text;
    eof = part.eof;
  }
  EXPECT_TRUE(seen == content);
  EXPECT_EQ(run(at("/d/big").read(~std::uint64_t{0}, ~0U)).body(), wire(true, ""s));
}

TEST_P(OpenTest, WriteIsOnTheHostAndSeenByEverybody) {
  serve(true);
  ClientSession other = makeSession("other");
  EXPECT_EQ(run(other, at("/d/f").getAttr(kSize)).body(), sizeIs(7));
  const Answer answer = run(at("/d/f").write(4, "ained").getAttr(kSize));
  EXPECT_EQ(answer.results.at(1).body(), "00000005 00000002 00000000 00000000");
  EXPECT_EQ(answer.body(), sizeIs(9));
  EXPECT_EQ(contentOf("/d/f"), "contained");
  EXPECT_EQ(run(other, at("/d/f").getAttr(kSize)).body(), sizeIs(9));
  host.takeCalls("Write");
  EXPECT_EQ(run(at("/d/f").write(100, "")).body(), wire(0U, 2U, std::uint64_t{0}));
  EXPECT_EQ(host.takeCalls("Write"), 0U);
  EXPECT_EQ(status(at("/d").write(0, "x")), kIsDirectory);
  EXPECT_EQ(status(at("/d/l").write(0, "x")), kIsLink);

  host.onCall = [](std::string_view name) {
    if (name == "Write") throw INfsException("The disk is gone.");
  };
  log.takeLines();
  EXPECT_EQ(status(at("/d/f").write(0, "lost")), kIo);
  EXPECT_THAT(log.takeLines(), Contains("warn Failed to write data (4 bytes) to file [/d/f]"));
}

TEST_P(OpenTest, RenamedFileIsWrittenWhereItIs) {
  serve(true);
  ClientSession other = makeSession("other");
  const NfsHandle handle = handleOf("/d/f");
  EXPECT_EQ(status(openAt("/d/f")), kOk);
  Compound rename = at("/d").add(op::kSaveFh).put(handleOf("/d/sub"));
  EXPECT_EQ(run(other, rename.add(op::kRename, "f"s, "moved"s)).status, kOk);
  EXPECT_EQ(run(other, at("/d").open(unchecked(), byName("f"))).status, kOk);
  EXPECT_EQ(run(other, at("/d/sub/moved").getAttr(kSize)).body(), sizeIs(7));
  EXPECT_EQ(run(Compound().put(handle).write(7, "!").read()).body(), wire(true, "content!"s));
  EXPECT_EQ(contentOf("/d/sub/moved"), "content!");
  EXPECT_EQ(contentOf("/d/f"), "");
  EXPECT_EQ(run(other, at("/d/sub/moved").getAttr(kSize)).body(), sizeIs(8));
  EXPECT_EQ(status(Compound().put(handle).close().read()), kNoFileHandle);
}

// What cannot be read any more has attributes all the same.
TEST_P(OpenTest, RenamedFileThatCannotBeOpenedAgainIsStillThere) {
  serve(true);
  const NfsHandle handle = handleOf("/d/f");
  EXPECT_EQ(status(openAt("/d/f")), kOk);
  EXPECT_EQ(status(at("/d").add(op::kSaveFh).add(op::kRename, "f"s, "h"s)), kOk);
  host.onCall = [](std::string_view name) {
    if (name == "OpenFile") throw INfsException("Nobody may open it.");
  };
  EXPECT_EQ(run(Compound().put(handle).getAttr(kSize)).body(), sizeIs(7));
  EXPECT_EQ(status(Compound().put(handle).close()), kOk);
}

// The objects of a session last from one COMPOUND to the next; names do not.
TEST_P(OpenTest, ObjectOfAnEarlierCompoundIsTheFileThatItWas) {
  serve(true);
  ClientSession other = makeSession("other");
  for (const bool isSaved : {false, true}) {
    const std::string name = isSaved ? "g" : "f";
    const std::string path = "/d/" + name;
    const std::string before = contentOf(path);
    EXPECT_EQ(status(at(path).add(op::kSaveFh)), kOk);
    const Compound rename = at("/d").add(op::kSaveFh).add(op::kRename, name, name + "2");
    EXPECT_EQ(run(other, rename).status, kOk);
    EXPECT_EQ(run(other, at("/d").open(guarded(), byName(name))).status, kOk);
    const Compound write = isSaved ? Compound().add(op::kRestoreFh) : Compound();
    run(Compound(write).write(0, "X"));
    EXPECT_EQ(contentOf(path), "") << isSaved;  // another file
  }
}

TEST_P(OpenTest, RemovedFileIsNotTheNextOfItsName) {
  serve(true);
  EXPECT_EQ(status(openAt("/d/f")), kOk);
  const NfsHandle gone = handleOf("/d/f");
  EXPECT_EQ(status(at("/d").add(op::kRemove, "f"s)), kOk);
  EXPECT_EQ(status(at("/d").open(guarded(), byName("f")).write(0, "new")), kOk);
  EXPECT_EQ(status(Compound().put(gone).read()), 10001U);
  EXPECT_EQ(read("/d/f"), "new");
}

}  // namespace
}  // namespace nfslib::testing
