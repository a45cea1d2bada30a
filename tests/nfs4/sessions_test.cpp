#include "nfs4/client.h"
#include "support/resident_memory.h"
#include "support/session_calls.h"

namespace nfslib::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

class SessionsTest : public SessionCalls {
 protected:
  SessionsTest() {
    dir("/d");
    file("/d/f", std::string(10'000, 'f'));
  }
};

TEST_F(SessionsTest, ExchangeIdKnowsItsClients) {
  serve();
  const std::string head = "00000000 00000003 74616700 00000001 0000002a 00000000 ";
  const std::string tail =
      " 00000000 00000000 00000001 00000012 54616c76 6f204669 6c65204d 6f756e74 65720000"
      " 00000000 00000000";
  const auto known = [&](unsigned id, unsigned flags) {
    return head + wire(0U, id, 1U, flags) + tail;
  };
  const unsigned fresh = 0x0001'0000;
  const unsigned confirmed = 0x8001'0000;
  EXPECT_EQ(identify(1, "a", kUpdate).status, kNoEntry);
  EXPECT_EQ(identify(1, "a").whole, known(1, fresh));
  EXPECT_EQ(identify(1, "a", kUpdate).status, kNoEntry);  // not confirmed
  EXPECT_EQ(identify(2, "a").whole, known(1, fresh));
  EXPECT_EQ(identify(1, "b", 0x0007'0103).whole, known(2, fresh));
  EXPECT_EQ(identify(1, "c", 0x8000'0000).status, kInvalid);
  EXPECT_EQ(service.findClientByOwner("c"), nullptr);

  const sessionid session = idIn(createSession(1, 1));
  EXPECT_EQ(identify(2, "a").whole, known(1, confirmed));
  EXPECT_EQ(identify(2, "a", kUpdate).whole, known(1, confirmed));
  EXPECT_EQ(identify(3, "a", kUpdate).status, kNotSame);
  EXPECT_EQ(identify(3, "a").status, kInUse);
  EXPECT_EQ(destroy(session), kOk);
  EXPECT_EQ(numberAt(identify(3, "a"), 8) & 0xFFFF'FFFFU, fresh);
  EXPECT_EQ(service.findClientByOwner("a")->getOwner().verifier.bytes[7], std::byte{3});
}

TEST_F(SessionsTest, ExchangeIdReadsItsArgumentsWhole) {
  serve();
  ClientSession client = makeSession("client");
  const Raw one = raw(Bitmap{1, 2}, Bitmap{3});  // state_protect_ops4
  const Raw algorithms = raw(2U, "oid1"s, "longer"s);
  for (const Raw& protection :
       {raw(0U), raw(1U, one), raw(2U, one, algorithms, algorithms, 3U, 4U)}) {
    for (const Raw& implementation : {raw(0U), raw(1U, "domain"s, "name"s, std::uint64_t{9}, 0U)}) {
      const Compound compound =
          Compound()
              .add(op::kExchangeId, std::uint64_t{0xAB}, "owner"s, 1U, protection, implementation)
              .add(op::kGetFh);
      EXPECT_THAT(run(client, compound).statuses(), ElementsAre(kOk, kNoFileHandle));
    }
  }
  EXPECT_THAT(log.takeLines(),
              Contains("dbg ExchangeId: verifier [00000000000000ab], clientOwnerId [owner], flags "
                       "[1], state protect type [2], client implementation ID [domain, name, 9]"));
  const Answer two = send4(1, Compound().add(op::kExchangeId, std::uint64_t{1}, "x"s, 0U, 0U, 2U));
  EXPECT_THAT(two.statuses(), ElementsAre(kBadXdr));
}

TEST_F(SessionsTest, CreateSessionNumbersAndLimitsThem) {
  serve();
  EXPECT_EQ(createSession(1, 1).status, kStaleClient);
  identify(1, "a");
  ChannelAttributes fore{9, ~0U, 4096, ~0U, 5000, 1, 0, 0};
  const Answer first = createSession(1, 1, fore);
  EXPECT_EQ(first.body(),
            "01000000 00000000 01000000 00000000 00000001 00000002"  // little-endian; flags
            " 00000000 10000000 00001000 10000000 00001000 00000001 00000000 " +
                wire(kChannel));
  const auto lines = log.takeLines();
  EXPECT_THAT(lines, Contains("info New NFS4 session has been created, sessionId "
                              "[01000000000000000100000000000000]"));
  EXPECT_THAT(lines, Contains("dbg Create session: clientId [1], m_sequenceId [1], flags [3], "
                              "forward channel attributes [Header pad Size [9], max request size "
                              "[4294967295], max response size [4096], max response size cached "
                              "[4294967295], max operations [5000], max requests [1]], callback "
                              "program id [1073741824]"));
  EXPECT_EQ(idIn(createSession(1, 0, fore)), idIn(first));
  EXPECT_EQ(service.findClientById(1)->getSessions().size(), 1U);
  EXPECT_EQ(createSession(1, 2).status, kMisordered);
  fore.maxResponseSize = 4095;
  EXPECT_EQ(createSession(1, 1, fore).status, kTooSmall);
  EXPECT_NE(idIn(createSession(1, 1)), idIn(first));
  EXPECT_EQ(service.findClientById(1)->getSessions().size(), 2U);
}

TEST_F(SessionsTest, CreateSessionReadsTheCallbackSecurityWhole) {
  serve();
  ClientSession client = makeSession("client");
  const Raw sys = raw(1U, 77U, "machine"s, 1U, 2U, Bitmap{5, 6, 7});
  const Raw gss = raw(6U, 1U, "handle"s, "handles"s);
  for (const Raw& security :
       {raw(0U), raw(1U, 0U), raw(1U, sys), raw(1U, gss), raw(3U, sys, 0U, gss)}) {
    const Compound compound =
        Compound()
            .add(op::kCreateSession, std::uint64_t{1}, 1U, 0U, kChannel, kChannel, 1U, security)
            .add(op::kGetFh);
    EXPECT_THAT(run(client, compound).statuses(), ElementsAre(kOk, kNoFileHandle));
  }
}

TEST_F(SessionsTest, SequenceIsRepeatedByteForByteAndNotRunAgain) {
  serve(true);
  const sessionid id = makeSession("client").id;
  const Compound making = at("/d").add(op::kCreate, 2U, "made"s, kNoAttributes).lookup("missing");
  const Answer first = sequence(id, 5, 3, true, making);
  EXPECT_THAT(first.statuses(), ElementsAre(kOk, kOk, kOk, kNoEntry));
  EXPECT_EQ(first.results[0].body(), wire(id, 5U, 3U, 63U, 10U, 0U));
  for (int i = 0; i < 3; ++i) {
    const Answer again = sequence(id, 5, 3, true, making);
    EXPECT_EQ(again.whole, first.whole);
    EXPECT_EQ(again.inputLeft, 0U);
  }
  EXPECT_EQ(host.takeCalls("CreateSubdir"), 1U);
  EXPECT_THAT(log.takeLines(), Contains("dbg Result was found in the response cache"));

  EXPECT_EQ(sequence(id, 7, 3, true).status, kMisordered);
  EXPECT_EQ(sequence(id, 4, 3, true).status, kMisordered);
  EXPECT_EQ(sequence(id, 6, 3, true).status, kOk);
  EXPECT_EQ(sequence(id, 5, 3, true, making).status, kMisordered);
  EXPECT_EQ(sequence(id, 90, 4, false).status, kOk);  // a slot that is not known yet
  sessionid unknown = id;
  unknown.bytes[15] = std::byte{1};
  EXPECT_EQ(sequence(unknown, 1, 0, false).whole, wire(kBadSession, "tag"s, 1U, 53U, kBadSession));
}

TEST_F(SessionsTest, SlotsAreBounded) {
  serve();
  const sessionid id = makeSession("client").id;
  for (unsigned slot = 0; slot < 1024; ++slot)
    ASSERT_EQ(sequence(id, 1, slot * 7, true).status, 0U);
  EXPECT_EQ(sequence(id, 1, 1, true).status, kBadSlot);
  EXPECT_EQ(sequence(id, 2, 7, true).status, kOk);
}

TEST_F(SessionsTest, CachedRepliesCostWhatTheyHold) {
  serve();
  constexpr std::size_t kLimit = 1U << 27U;  // 1 GiB for eight times as many
  const std::size_t before = residentBytes();
  const std::uint64_t client = exchangeId(1, "client");
  for (unsigned i = 0; i < 125; ++i) {
    const sessionid id = idIn(createSession(client, 1));
    for (unsigned slot = 0; slot < 64; ++slot) {
      ASSERT_EQ(sequence(id, 1, slot, true, Compound().add(op::kPutRootFh)).status, kOk);
    }
  }
  EXPECT_LT(residentBytes() - before, kLimit);
}

TEST_F(SessionsTest, ARepeatedReplyIsSentWholeOrNotAtAll) {
  file("/d/large", std::string(1'048'000, 'l'));
  serve();
  const sessionid id = makeSession("client", {0, 2U << 20U, 2U << 20U, 2U << 20U, 64, 1, 0, 0}).id;
  const Compound compound = Compound()
                                .add(op::kSequence, id, 1U, 0U, 0U, true)
                                .add(at("/d/large").open(kNoCreate, kByHandle).read(0, 1'048'000));
  const Answer first = send4(1, compound, "");
  EXPECT_EQ(first.status, kOk);
  EXPECT_EQ(send4(1, compound, "").whole, first.whole);
  const std::string longTag(1000, 't');
  EXPECT_EQ(send4(1, compound, longTag).whole, wire(kReplyTooBig, longTag, 0U));
}

TEST_F(SessionsTest, ClientsAndSessionsAreBounded) {
  serve();
  constexpr unsigned kClients = 4096, kSessions = 16'384;
  ClientSession first = makeSession("first");
  for (unsigned i = 1; i < kClients + 10; ++i) {
    service.createClient({{}, std::to_string(i)}, 1);
  }
  EXPECT_EQ(run(first, {}).status, kOk);
  EXPECT_EQ(service.findClientByOwner("1"), nullptr);
  const auto last = service.findClientByOwner("4100");
  ChannelAttributes channel = kChannel;
  for (unsigned i = 1; i < kSessions; ++i) service.createSession(last, 0, channel);
  EXPECT_EQ(createSession(last->getId(), 1).status, kResource);
  EXPECT_EQ(destroy(first.id), kOk);
  EXPECT_EQ(createSession(last->getId(), 1).status, kOk);
}

TEST_F(SessionsTest, LimitsOfTheForeChannelHold) {
  serve();
  const auto limited = [&](const std::string& owner, unsigned request, unsigned response,
                           unsigned cached, unsigned operations) {
    return makeSession(owner, {0, request, response, cached, operations, 1, 0, 0}).id;
  };
  const Compound reading = at("/d/f").open(kNoCreate, kByHandle).read(0, 5000);
  const sessionid small = limited("a", 1000, 4096, 1000, 6);
  EXPECT_EQ(sequence(small, 1, 0, false, Compound().lookup(std::string(1500, 'x'))).status,
            kRequestTooBig);
  Compound six;
  for (int i = 0; i < 5; ++i) six.add(op::kPutRootFh);
  EXPECT_EQ(sequence(small, 1, 1, false, six).status, kOk);
  EXPECT_EQ(sequence(small, 1, 2, false, six.add(op::kPutRootFh)).status, kTooManyOperations);

  const Answer big = sequence(small, 1, 3, false, reading);
  EXPECT_THAT(big.statuses(), ElementsAre(kOk, kOk, kOk, kReplyTooBig));
  EXPECT_EQ(big.body(), "");
  EXPECT_EQ(
      sequence(small, 2, 3, false, at("/d/f").open(kNoCreate, kByHandle).read(0, 3000)).status,
      kOk);
  const Answer uncached = sequence(small, 1, 4, true, reading);
  EXPECT_THAT(uncached.statuses(), ElementsAre(kOk, kOk, kOk, kReplyTooBigToCache));
  EXPECT_EQ(uncached.body(), "");
  EXPECT_EQ(sequence(small, 1, 4, true, reading).whole, uncached.whole);
}

TEST_F(SessionsTest, ClientsGoAfterTheirSessions) {
  serve();
  ClientSession client = makeSession("client");
  EXPECT_EQ(run(client, Compound().add(op::kReclaimComplete, false)).status, kOk);
  EXPECT_EQ(destroy(std::uint64_t{1}), kClientBusy);
  EXPECT_EQ(destroy(std::uint64_t{2}), kStaleClient);
  // Also from within.
  EXPECT_EQ(run(client, Compound().add(op::kDestroySession, client.id)).status, kOk);
  EXPECT_EQ(destroy(client.id), kBadSession);
  EXPECT_EQ(run(client, {}).status, kBadSession);
  EXPECT_EQ(destroy(std::uint64_t{1}), kOk);
  EXPECT_EQ(destroy(std::uint64_t{1}), kStaleClient);
  service.waitOnDestroyClients();
}

TEST_F(SessionsTest, SetClientIdKeepsTheNewest) {
  serve();
  const auto set = [&](std::uint64_t verifier, const std::string& owner) {
    return send4(0, Compound().add(op::kSetClientId, verifier, owner, 1U, "tcp"s, "addr"s, 2U));
  };
  const auto confirm = [&](std::uint64_t client, std::uint64_t verifier) {
    return send4(0, Compound().add(op::kSetClientIdConfirm, client, verifier)).status;
  };
  const std::uint64_t one = 1;
  EXPECT_EQ(set(0x0102, "a").body(), wire(one, std::uint64_t{0x0102}));
  EXPECT_EQ(confirm(1, 0x0102), kOk);
  EXPECT_EQ(confirm(1, 0x0103), kStaleClient);
  EXPECT_EQ(confirm(2, 0x0102), kStaleClient);
  EXPECT_EQ(set(0x0104, "b").body(), wire(one, std::uint64_t{0x0104}));
  EXPECT_EQ(confirm(1, 0x0102), kStaleClient);
  EXPECT_EQ(service.findClientByOwner("a"), nullptr);
  service.waitOnDestroyClients();  // nobody waits for these
}

TEST_F(SessionsTest, NobodyTakesTheIdOfALiveClient) {
  serve();
  ClientSession first = makeSession("first");
  EXPECT_EQ(exchangeId(1, "second"), 2U);
  EXPECT_EQ(exchangeId(1, "third"), 3U);
  EXPECT_EQ(destroy(std::uint64_t{2}), kOk);
  const std::uint64_t fourth = exchangeId(1, "fourth");
  EXPECT_NE(fourth, 1U);
  EXPECT_NE(fourth, 3U);
  // SETCLIENTID has a place of its own, even where the first client is one of minor version 1.
  const Compound set = Compound().add(op::kSetClientId, std::uint64_t{1}, "old"s, 1U, ""s, ""s, 2U);
  const Answer answer = send4(0, set);
  EXPECT_EQ(answer.status, kOk);
  EXPECT_NE(numberAt(answer, 0), 1U);
  EXPECT_EQ(run(first, {}).status, kOk);
  EXPECT_NE(numberAt(send4(0, set), 0), 1U);
  EXPECT_NE(service.findClientByOwner("first"), nullptr);
  // Nor where it has the same name.
  const auto named = [](const std::string& owner) {
    return Compound().add(op::kSetClientId, std::uint64_t{1}, owner, 1U, ""s, ""s, 2U);
  };
  EXPECT_EQ(send4(0, named("first")).status, kOk);
  EXPECT_EQ(run(first, {}).status, kOk);
  EXPECT_EQ(send4(0, named(std::string(1024, 'n'))).status, kOk);
  EXPECT_EQ(send4(0, named(std::string(1025, 'n'))).status, 10036U);  // NFS4_OPAQUE_LIMIT
}

}  // namespace
}  // namespace nfslib::testing
