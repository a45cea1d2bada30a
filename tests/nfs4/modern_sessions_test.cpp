#include "nfs4/slot_table.h"
#include "support/resident_memory.h"
#include "support/session_calls.h"

#include <array>
#include <barrier>
#include <thread>

// The sessions of the modern profile: RFC 8881 section 2.10.6 and section 18.36.

namespace nfslib::testing {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Not;

class ModernSessionsTest : public ModernSessionCalls {
 protected:
  // Makes a directory: what must not be done twice.
  Compound making(const std::string& name) {
    return at("/d").add(op::kCreate, 2U, name, kNoAttributes);
  }
  sessionid limited(unsigned request, unsigned response, unsigned cached, unsigned operations) {
    return makeSession("limited", {0, request, response, cached, operations, 4, 0, 0}).id;
  }
};

TEST_F(ModernSessionsTest, SlotsAreCountedUpOneByOne) {
  serve(true);
  const sessionid id = makeSession("client", {0, 4096, 4096, 4096, 16, 3, 0, 0}).id;
  EXPECT_EQ(sequence(id, 0, 0, false).status, kMisordered);
  EXPECT_EQ(sequence(id, 2, 0, false).status, kMisordered);
  EXPECT_EQ(sequence(id, 1, 0, false).body(), wire(id, 1U, 0U, 2U, 2U, 0U));
  EXPECT_EQ(sequence(id, 3, 0, false).status, kMisordered);
  EXPECT_EQ(sequence(id, 2, 0, false).status, kOk);
  EXPECT_EQ(sequence(id, 1, 0, false).status, kMisordered);
  EXPECT_EQ(sequence(id, 1, 2, false).status, kOk);
  EXPECT_EQ(sequence(id, 1, 3, false).status, kBadSlot);
  EXPECT_EQ(sequence(id, 1, ~0U, true).status, kBadSlot);
  // What is refused uses nothing up.
  EXPECT_EQ(sequence(id, 1, 1, false, Compound().lookup(std::string(4096, 'x'))).status,
            kRequestTooBig);
  Compound many;
  for (int i = 0; i < 16; ++i) many.add(op::kPutRootFh);
  EXPECT_EQ(sequence(id, 1, 1, false, many).status, kTooManyOperations);
  EXPECT_EQ(sequence(id, 1, 1, false).status, kOk);
}

TEST_F(ModernSessionsTest, RepeatedRequestsAreNotRunAgain) {
  serve(true);
  const sessionid id = makeSession("client").id;
  const Answer kept = sequence(id, 1, 0, true, making("kept").lookup("missing"));
  EXPECT_THAT(kept.statuses(), ElementsAre(kOk, kOk, kOk, kNoEntry));
  const Answer lost = sequence(id, 1, 1, false, making("lost"));
  const Answer alone = sequence(id, 1, 2, false);
  const Compound cut = at("/d").add(op::kLookup, 9U);
  const Answer whole = sequence(id, 1, 3, true, cut);
  EXPECT_EQ(whole.whole, wire(kBadXdr, "tag"s, 0U));
  EXPECT_EQ(host.takeCalls("CreateSubdir"), 2U);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(sequence(id, 1, 0, true, making("kept").lookup("missing")).whole, kept.whole);
    const Answer again = sequence(id, 1, 1, false, making("lost"));
    EXPECT_THAT(again.statuses(), ElementsAre(kOk, kUncached));
    EXPECT_EQ(again.results[0].bytes, lost.results[0].bytes);
    EXPECT_EQ(again.results[1].operation, op::kPutFh);
    EXPECT_EQ(sequence(id, 1, 2, false).whole, alone.whole);
    EXPECT_EQ(sequence(id, 1, 3, true, cut).whole, whole.whole);
  }
  EXPECT_EQ(sequence(id, 1, 4, false, Compound().add(999U)).status, 10044U);
  EXPECT_EQ(sequence(id, 1, 4, false, Compound().add(999U)).status, 10044U);

  // Other requests of the same number.
  EXPECT_EQ(sequence(id, 1, 0, true, making("kepT").lookup("missing")).status, kFalseRetry);
  EXPECT_EQ(sequence(id, 1, 0, true, making("kept")).status, kFalseRetry);
  EXPECT_EQ(sequence(id, 1, 1, false).status, kFalseRetry);
  const Compound writing = at("/d/f").write(0, std::string(3000, 'a'));
  EXPECT_EQ(sequence(id, 1, 5, true, writing).status, kOk);
  EXPECT_EQ(sequence(id, 1, 5, true, at("/d/f").write(0, std::string(3000, 'b'))).status,
            kFalseRetry);
  EXPECT_EQ(sequence(id, 1, 5, true, writing).status, kOk);
  callAs(50);
  EXPECT_EQ(sequence(id, 1, 5, true, writing).status, kFalseRetry);
  EXPECT_EQ(host.takeCalls("CreateSubdir"), 0U);
}

TEST_F(ModernSessionsTest, ChannelsAreCutToWhatIsKept) {
  serve();
  const std::uint64_t client = exchangeId(1, "client");
  const Answer made = createSession(client, 1, {8, ~0U, ~0U, ~0U, ~0U, ~0U, 0, 0});
  // The back channel that was asked for is not granted.
  const ChannelAttributes granted{0, 1U << 20U, 1U << 20U, 65'536, 4096, 64, 0, 0};
  EXPECT_EQ(made.body(), wire(idIn(made), 1U, 0U, granted, kChannel));
  EXPECT_EQ(createSession(client, 2, {0, 20, 4096, 0, 8, 1, 0, 0}).status, kTooSmall);
  EXPECT_EQ(createSession(client, 3, {0, 4096, 20, 0, 8, 1, 0, 0}).status, kTooSmall);
  EXPECT_EQ(createSession(client, 4, {0, 4096, 4096, 0, 8, 0, 0, 0}).status, kInvalid);
  const Raw unknownFlag = raw(client, 5U, 8U, kChannel, kChannel, 1U, 1U, 0U);
  EXPECT_EQ(send4(1, Compound().add(op::kCreateSession, unknownFlag)).status, kInvalid);

  const Compound reading = at("/d/f").read(0, 7).getAttr({~0U, ~0U});
  EXPECT_EQ(sequence(limited(4096, 300, 300, 8), 1, 0, false, reading).status, kReplyTooBig);
  const sessionid id = limited(4096, 4096, 100, 8);
  EXPECT_EQ(sequence(id, 1, 0, true, reading).status, kReplyTooBigToCache);
  EXPECT_EQ(sequence(id, 1, 0, true, reading).status, kReplyTooBigToCache);
  EXPECT_EQ(sequence(id, 2, 0, false, reading).status, kOk);
}

TEST_F(ModernSessionsTest, CreateSessionIsAnsweredAgain) {
  serve();
  const std::uint64_t client = exchangeId(1, "client");
  EXPECT_EQ(createSession(client + 1, 1).status, kStaleClient);
  for (const unsigned wrong : {0U, 2U, ~0U}) {
    EXPECT_EQ(createSession(client, wrong).status, kMisordered);
  }
  const Answer first = createSession(client, 1);
  EXPECT_EQ(createSession(client, 1).whole, first.whole);
  const ChannelAttributes tooSmall{0, 1, 1, 1, 1, 1, 0, 0};
  EXPECT_EQ(createSession(client, 2, tooSmall).status, kTooSmall);
  EXPECT_EQ(createSession(client, 2).status, kTooSmall);
  EXPECT_EQ(createSession(client, 1).status, kMisordered);
  EXPECT_EQ(numberAt(identify(1, "client"), 8) >> 32U, 3U);
  const Answer second = createSession(client, 3);
  EXPECT_EQ(second.status, kOk);
  EXPECT_NE(idIn(second), idIn(first));
  EXPECT_EQ(sequence(idIn(first), 1, 0, false).status, kOk);
}

TEST_F(ModernSessionsTest, SessionsEndWithTheLastOperation) {
  serve();
  const sessionid id = makeSession("client").id, other = makeSession("client").id;
  const Compound destroying = Compound().add(op::kDestroySession, id);
  EXPECT_EQ(sequence(id, 1, 0, true, Compound(destroying).add(op::kPutRootFh)).status, kNotOnly);
  EXPECT_EQ(sequence(id, 2, 0, true, destroying).status, kOk);
  EXPECT_EQ(sequence(id, 3, 0, true).status, kBadSession);
  EXPECT_EQ(sequence(other, 1, 0, false, destroying).status, kBadSession);
  EXPECT_EQ(send4(1, Compound().add(41U, other, 3U, false)).body(), wire(other, 1U, 0U));
  for (const unsigned direction : {0U, 2U, 7U}) {
    EXPECT_EQ(send4(1, Compound().add(41U, other, direction, false)).status, kInvalid);
  }
  EXPECT_EQ(send4(1, Compound().add(41U, id, 1U, false)).status, kBadSession);
}

TEST_F(ModernSessionsTest, SessionsOfOneClientAreBounded) {
  serve();
  constexpr unsigned kSessions = 128, kUsed = 32;
  constexpr std::size_t kLimit = (std::size_t{1} << 30U) / 1000 * kUsed;  // 1 GiB for 1,000
  const std::size_t before = residentBytes();
  const std::uint64_t client = exchangeId(1, "client");
  for (unsigned number = 1; number <= kSessions; ++number) {
    const Answer made = createSession(client, number);
    ASSERT_EQ(made.status, kOk);
    for (unsigned slot = 0; slot < 64 && number <= kUsed; ++slot) {
      ASSERT_EQ(sequence(idIn(made), 1, slot, true, Compound().add(op::kPutRootFh)).status, kOk);
    }
  }
  EXPECT_LT(residentBytes() - before, kLimit);
  EXPECT_EQ(createSession(client, kSessions + 1).status, kNoSpace);
  EXPECT_EQ(createSession(exchangeId(1, "another"), 1).status, kOk);
}

// All but one of the equal requests wait for the first, and have its reply.
TEST_F(ModernSessionsTest, RequestsThatComeAtOnceAreRunOnce) {
  serve();
  const sessionid id = makeSession("client").id;
  constexpr unsigned kThreads = 4, kRounds = 50;
  const Compound reading = at("/d/f").read(0, 7);
  host.takeCalls("Read");
  std::array<std::vector<std::string>, kThreads> replies;
  std::barrier together(kThreads);
  std::vector<std::thread> connections;
  for (auto& mine : replies) {
    connections.emplace_back([&] {
      for (unsigned round = 0; round < kRounds; ++round) {
        together.arrive_and_wait();
        const Answer answer = sequence(id, round + 1, 0, true, reading);
        mine.push_back(answer.status == kOk ? answer.whole : "failed");
      }
    });
  }
  for (std::thread& connection : connections) connection.join();
  EXPECT_EQ(host.takeCalls("Read"), kRounds);
  EXPECT_THAT(replies, Each(replies[0]));
  EXPECT_THAT(replies[0], Not(Contains("failed")));
}

TEST(SlotTableTest, GoesRoundAndSharesABudget) {
  const auto budget = std::make_shared<nfs4::ReplyBudget>(100);
  const auto fill = [](nfs4::SlotTable& table, unsigned slot, unsigned number, std::size_t bytes) {
    const auto response = table.begin(slot, number, 7, 0, true);
    response->data.resize(bytes);
    table.keep(response);
  };
  using Verdict = nfs4::SlotTable::Verdict;
  nfs4::SlotTable first;
  first.setUp(4, budget);
  fill(first, 0, ~0U, 60);
  EXPECT_EQ(first.judge(0, 0, 1), Verdict::New);
  {
    nfs4::SlotTable second;
    second.setUp(4, budget);
    fill(second, 3, 1, 50);  // no room: sent, but not kept
    EXPECT_EQ(second.judge(3, 1, 7), Verdict::NotKept);
    fill(second, 2, 1, 40);
    EXPECT_EQ(second.judge(2, 1, 7), Verdict::Repeated);
    EXPECT_EQ(budget->left(), 0U);
  }
  EXPECT_EQ(budget->left(), 40U);
  fill(first, 0, 0, 100);
  EXPECT_EQ(first.judge(0, 0, 7), Verdict::Repeated);
  EXPECT_EQ(first.judge(0, 1, 7), Verdict::New);
}

}  // namespace
}  // namespace nfslib::testing
