#include "nfs4/operation_table.h"
#include "support/nfs4_fixture.h"

#include <atomic>
#include <set>
#include <thread>

namespace nfslib::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::SizeIs;

class CompoundTest : public Nfs4Test {
 protected:
  CompoundTest() : Nfs4Test(LogLevel::dbg) {
    dir("/d");
    file("/d/f", "content");
  }
};
// The lines are looked at.
class CompoundLinesTest : public Nfs4Test {};

// Without arguments: each row is seen to be there by what it misses.
TEST_F(CompoundTest, ServesTheRowsOfTheTableAndNothingElse) {
  const std::set<unsigned> served{3,  4,  6,  9,  10, 11, 15, 16, 17, 18, 22, 24, 25, 26, 27,
                                  28, 29, 31, 32, 34, 35, 36, 37, 38, 42, 43, 44, 53, 57, 58};
  const std::set<unsigned> changing{6, 11, 28, 29, 34, 38};
  const std::set<unsigned> alone{42, 43, 44, 57};
  // LOOKUPP, GETFH, READLINK, RESTOREFH and SAVEFH have no arguments, but need an object.
  const std::set<unsigned> ofAnObject{10, 16, 27, 31, 32};
  EXPECT_EQ(nfs4::operationTable().size(), served.size());
  serve();
  auto client = makeSession("client");
  for (unsigned number = 0; number <= 61; ++number) {
    if (number == op::kSetAttr) continue;  // below: its result has a body in any case
    const Compound alonePlain = Compound().add(number);
    const Compound afterNothing = Compound().add(number).add(op::kPutRootFh);
    const bool isIllegal = number < 3 || number > 58;
    const unsigned shown = isIllegal ? 10044 : number;

    unsigned inSession = kBadXdr;
    if (isIllegal)
      inSession = 10044;
    else if (!served.contains(number))
      inSession = 10004;
    else if (changing.contains(number))
      inSession = 30;
    else if (ofAnObject.contains(number))
      inSession = kNoFileHandle;
    else if (number == op::kPutRootFh)
      inSession = kOk;
    else if (number == op::kSequence)
      inSession = 10064;
    else if (number == op::kDestroySession)
      continue;  // 16 bytes that end anywhere
    client = makeSession("client " + std::to_string(number));
    const Answer answer = run(client, alonePlain);
    EXPECT_EQ(answer.status, inSession) << number;
    if (inSession != kBadXdr) {
      ASSERT_THAT(answer.results, SizeIs(1)) << number;
      EXPECT_EQ(answer.results[0].operation, shown);
    }

    unsigned without = isIllegal ? 10044 : 10071;
    if (alone.contains(number)) without = 10081;
    if (number == op::kSequence) without = kBadXdr;
    if (number == 41) without = 10004;  // BIND_CONN_TO_SESSION
    EXPECT_EQ(send4(1, afterNothing).status, without) << number;
  }
}

TEST_F(CompoundTest, WhatChangesTheTreeRunsOnWritableServersOnly) {
  serve(true);
  EXPECT_EQ(send4(0, at("/d").add(op::kRemove, "f"s)).status, kOk);
  server4.registerProgram(kProgram, std::make_unique<nfs::Nfs4Program>(service, false));
  const Answer answer = send4(0, at("/d").add(op::kRemove, "g"s).add(op::kGetFh));
  EXPECT_THAT(answer.statuses(), ElementsAre(kOk, 30U));
  EXPECT_EQ(answer.status, 30U);
}

// SETATTR4res has no arm without a bitmap.
TEST_F(CompoundTest, RefusedSetAttrHasItsBitmap) {
  serve();
  EXPECT_EQ(send4(0, at("/d").add(op::kSetAttr)).whole,
            wire(30U, "tag"s, 2U, 22U, kOk, 34U, 30U, Bitmap{}));
  EXPECT_EQ(send4(1, Compound().add(op::kSetAttr)).whole,
            wire(10071U, "tag"s, 1U, 34U, 10071U, Bitmap{}));
}

TEST_F(CompoundTest, HeadersAreEchoedOrRefused) {
  serve();
  EXPECT_EQ(send4(0, {}, "five!").whole, "00000000 00000005 66697665 21000000 00000000");
  EXPECT_EQ(send4(1, {}, "").whole, "00000000 00000000 00000000");
  for (const unsigned minor : {2U, 3U, ~0U}) {
    const Answer answer = send4(minor, Compound().add(op::kPutRootFh), "t");
    EXPECT_EQ(answer.whole, wire(10021U, "t"s, 0U));
    EXPECT_EQ(answer.inputLeft, 0U);
  }
  // Counts and lengths that the input does not hold.
  for (const std::string& head :
       {wire("t"s, 0U, 2U, 10U), wire("t"s, 0U, ~0U, 10U), wire("t"s, 0U), wire(100U, 0U, 0U)}) {
    const Answer answer = taken(caller4(1, head));
    EXPECT_EQ(answer.whole, wire(kBadXdr, head.substr(0, 8) == "00000001" ? "t"s : ""s, 0U));
    EXPECT_EQ(answer.inputLeft, 0U);
  }
}

TEST_F(CompoundTest, LengthsThatTheInputDoesNotHoldEndTheCompoundAtOnce) {
  serve(true);
  for (const unsigned length : {9U, 0x3FFF'FFFFU, 0x7FFF'FFFFU, 0xFFFF'FFFFU}) {
    for (const Compound& bad : {
             Compound().add(op::kGetAttr, length, 1U),
             Compound().add(op::kLookup, length, 1U),
             Compound().add(op::kRemove, length, 1U),
             Compound().add(op::kVerify, length, 1U),
             Compound().add(op::kPutFh, length, 1U, 1U, 1U, 1U),
             Compound().add(op::kSetAttr, kNoState, length, 1U),
             Compound().add(op::kSetAttr, kNoState, Bitmap{1U << 12U}, 4U, length),
             Compound().add(op::kWrite, kNoState, std::uint64_t{0}, 2U, length, 1U),
             Compound().add(op::kCreate, 2U, "made"s, length, 1U),
             Compound().add(op::kOpen, 0U, 1U, 0U, std::uint64_t{0}, length, 1U),
             Compound().add(op::kReadDir, std::uint64_t{0}, std::uint64_t{0}, 1U, 1U, length),
             Compound().add(op::kExchangeId, std::uint64_t{0}, "o"s, 0U, 2U, 0U, 0U, length),
         }) {
      const Answer answer = send4(0, at("/d").add(bad));
      EXPECT_EQ(answer.whole, wire(kBadXdr, "tag"s, 0U)) << bad.operations;
      EXPECT_EQ(answer.inputLeft, 0U);
    }
  }
}

TEST_F(CompoundTest, FailedOperationIsTheLastOfTheResults) {
  serve();
  const Answer answer =
      send4(0, at("/d").add(op::kGetFh).lookup("missing").add(op::kPutRootFh).add(~0U), "end");
  EXPECT_EQ(answer.whole, wire(kNoEntry, "end"s, 3U, 22U, 0U, 10U, 0U, handleOf("/d"), 15U, 2U));
  EXPECT_EQ(answer.inputLeft, 0U);
  // The current object is still that of before, also for the next COMPOUND of minor version 0.
  EXPECT_EQ(send4(0, Compound().add(op::kGetFh)).body(), wire(handleOf("/d")));
}

TEST_F(CompoundTest, ExceptionOfTheHostEndsItWithoutResults) {
  serve();
  auto client = makeSession("client");
  client.cached = true;
  const Compound reading = at("/d/f").open(kNoCreate, kByHandle).read();
  host.onCall = [](std::string_view name) {
    if (name == "Read") throw INfsException("The disk is gone.");
  };
  for (const bool inSession : {false, true}) {
    const Answer answer = inSession ? run(client, reading) : send4(0, reading);
    EXPECT_EQ(answer.whole, wire(kServerFault, "tag"s, 0U));
    EXPECT_EQ(answer.inputLeft, 0U);
  }
  host.onCall = nullptr;
  EXPECT_EQ(run(client, reading).body(), wire(true, "content"s));
}

// 250 bytes of attributes for 16 bytes of request: more than a reply can hold.
TEST_F(CompoundTest, ReplyThatDoesNotFitTheStreamIsStillWhole) {
  serve();
  Compound many = at("/d");
  for (int i = 0; i < 10'000; ++i) many.getAttr({~0U, ~0U});
  const Answer answer = send4(0, many);
  EXPECT_NE(answer.status, kOk);
}

TEST_F(CompoundLinesTest, ProceduresAndVersions) {
  serve();
  log.takeLines();
  EXPECT_EQ(caller4(0, "").body(), "");
  EXPECT_THAT(log.takeLines(), ElementsAre("dbg NFS procedure: [0]"));
  EXPECT_EQ(caller4(2, "").acceptStatus, kProcedureUnavailable);
  EXPECT_THAT(log.takeLines(),
              ElementsAre("dbg NFS procedure: [2]", "err NFS procedure [2] is not implemented."));
  caller4.version = 3;
  EXPECT_EQ(caller4(1, "").acceptStatus, kProcedureUnavailable);
  EXPECT_THAT(log.takeLines(), ElementsAre("warn An unexpected NFS version: [3]"));
  caller4.version = 4;
}

TEST_F(CompoundLinesTest, EachOperationSaysItsArguments) {
  file("/f", "content");
  serve(true);
  const NfsHandle file = handleOf("/f");
  const std::string id = std::to_string(file.objectId);
  const std::string state = "Sequence ID (0), other (" + std::string(24, '0') + ")";
  const Raw size = fattr4({16}, std::uint64_t{7});
  const std::uint64_t one = 1;
  Compound all;
  all.add(op::kPutRootFh).lookup("export").add(op::kLookupP).add(op::kAccess, 2U).add(op::kSaveFh);
  all.add(op::kReadDir, one, one, 3U, 4096U, Bitmap{5, 6}).getAttr({8, 9}).add(op::kGetFh);
  all.add(op::kLink, "n"s);  // of a directory: refused, and the last
  const std::vector<std::pair<Compound, std::vector<std::string>>> expected{
      {all,
       {"Put root file handle", "Lookup: object name [export]", "Lookup parent for path [/]",
        "Requested access permissions: [2]", "Check result : [2]", "Save file handle",
        "Read directory: cookie [1], verifier [0000000000000001], count [3], max count [4096], "
        "requested attributes [5, 6]",
        "Get attributes: [8, 9]", "Get file handle", "Link: new name [n]"}},
      {at("/f").add(op::kVerify, size).write(7, "x").open(kNoCreate, kByHandle).read(2, 3).close(),
       {"Put file handle: [" + id + "]", "Verify: mode [verify], attributes to check [16]",
        "Write: stateId [" + state + "], offset [7], stable[2]",
        "Open: sequenceId [0], type [no_create], claim type [CLAIM_FH], name []",
        "Read: stateId [" + state + "], offset [2], count[3]",
        "Close: sequenceId [0], filesystem object state ID [" + state + "]"}},
      {at("/f").add(op::kNVerify, size).add(op::kSetAttr, kNoState, size).add(op::kReadLink),
       {"Verify: mode [nverify], attributes to check [16]",
        "Set attributes: state ID [" + state + "], attributes to set [16]", "Read link"}},
      {at("/").add(op::kCreate, 5U, "to"s, "n"s, kNoAttributes).add(op::kRestoreFh),
       {"Create: type [5], name [n], attributes to set []", "Restore file handle"}},
      {at("/").add(op::kSaveFh).add(op::kRename, "n"s, "m"s).add(op::kRemove, "m"s),
       {"Rename: old name [n], new name [m]", "Remove: [m]"}},
      {Compound().add(op::kSetClientId, one, "me"s, 5U, "tcp"s, "addr"s, 6U),
       {"Set client ID: verifier [0000000000000001], clientOwnerId [me], callback program [5], "
        "callback address [addr], callback identificator [6]"}},
      {Compound().add(op::kSetClientIdConfirm, one, one),
       {"Set client ID confirmation: clientId [1], verifier [0000000000000001]"}},
      {Compound().add(op::kReclaimComplete, true), {"Reclaim complete: one_fs [true]"}},
      {Compound().add(op::kDestroyClientId, one), {"Destroy client, ID [1]"}},
      {Compound().add(op::kDestroySession, one, one + 1),
       {"Destroy session, ID [00000000000000010000000000000002]"}},
      {Compound().add(op::kSequence, one, one, 3U, 4U, 5U, true),
       {"Sequence: sessionId [00000000000000010000000000000001], sequenceId [3], slotId[4], max "
        "slot [5], cacheReply [true]"}},
  };
  for (const auto& [compound, lines] : expected) {
    log.takeLines();
    send4(0, compound, "text");
    const auto said = log.takeLines();
    EXPECT_THAT(said, Contains("dbg Compound: tag [text], minorVersion[0], operationsCount [" +
                               std::to_string(compound.count) + "]"));
    for (const std::string& line : lines) EXPECT_THAT(said, Contains("dbg " + line));
  }
}

// The default session, one session of three clients and sessions of their own, all at once.
TEST_F(CompoundTest, NeverSeesTheObjectOfAnother) {
  constexpr unsigned kThreads = 8;
  constexpr int kRounds = 60;
  for (unsigned i = 0; i < kThreads; ++i) file("/d/" + std::to_string(i), std::string(i + 1, 'x'));
  serve();
  const ClientSession shared = makeSession("shared");
  std::atomic<int> wrong{0};
  std::vector<std::thread> clients;
  for (unsigned i = 0; i < kThreads; ++i) {
    const NfsHandle mine = handleOf("/d/" + std::to_string(i));
    Compound compound = at("/d").lookup(std::to_string(i)).open(kNoCreate, kByHandle);
    compound.add(op::kSaveFh).add(op::kPutRootFh).add(op::kRestoreFh).add(op::kGetFh);
    compound.read().getAttr(kSize).close().getAttr(kSize).add(op::kGetFh);
    ClientSession mySession = i < 6 ? shared : makeSession("client " + std::to_string(i));
    mySession.slot = i;
    mySession.cached = i % 2 == 0;
    clients.emplace_back([&, i, mine, compound, mySession]() mutable {
      for (int round = 0; round < kRounds; ++round) {
        const Answer answer = i < 3 ? send4(0, compound) : run(mySession, compound);
        const bool isRight = answer.status == kOk && answer.results.size() == 12 &&
                             answer.results[6].body() == wire(mine) &&
                             answer.results[7].body() == wire(true, std::string(i + 1, 'x')) &&
                             answer.results[8].body() == sizeIs(i + 1) &&
                             answer.results[11].body() == wire(mine);
        if (!isRight) ++wrong;
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace nfslib::testing
