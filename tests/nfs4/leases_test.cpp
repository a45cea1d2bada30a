#include "nfs4/client.h"
#include "support/session_calls.h"

// Leases of the modern profile: what becomes of clients that are silent.

namespace nfslib::testing {
namespace {

constexpr std::chrono::seconds kLease{90};
constexpr std::chrono::hours kForgotten{1};

class LeasesTest : public ModernSessionCalls {
 protected:
  std::uint64_t idOf(const std::string& owner) const {
    return service.findClientByOwner(owner)->getId();
  }
};

TEST_F(LeasesTest, AreRenewedByWhoIsHeardOf) {
  serve();
  ClientSession session = makeSession("new");
  const std::uint64_t client = idOf("new"), old = setClientId("old");
  EXPECT_TRUE(service.isSilent(client + 100));
  const auto silent = [&] { return std::pair(service.isSilent(client), service.isSilent(old)); };
  time += kLease;
  EXPECT_EQ(silent(), std::pair(false, false));
  EXPECT_EQ(run(session, {}).status, kOk);
  time += Seconds(1);
  EXPECT_EQ(silent(), std::pair(false, true));
  EXPECT_EQ(renew(old), kOk);
  EXPECT_EQ(silent(), std::pair(false, false));
  time += kLease + Seconds(1);
  EXPECT_EQ(silent(), std::pair(true, true));
  // A request that is not in order says nothing of its client.
  EXPECT_EQ(sequence(session.id, 90, 0, false).status, kMisordered);
  EXPECT_EQ(silent(), std::pair(true, true));
  EXPECT_EQ(run(session, {}).status, kOk);
  EXPECT_TRUE(service.renewLease(old));
  EXPECT_EQ(silent(), std::pair(false, false));
  EXPECT_FALSE(service.renewLease(exchangeId(1, "unconfirmed")));
}

TEST_F(LeasesTest, SilentClientsKeepTheirStateUntilTheyAreForgotten) {
  serve();
  ClientSession session = makeSession("new");
  const std::uint64_t client = idOf("new"), old = setClientId("old");
  const std::uint64_t unconfirmed = exchangeId(1, "unconfirmed");
  EXPECT_EQ(run(session, opening()).status, kOk);
  EXPECT_EQ(send4(0, opening(old)).status, kOk);
  time += kForgotten;
  EXPECT_EQ(makeSession("passing by").sequenceId, 0U);
  EXPECT_TRUE(service.openFiles().hasState(client));
  EXPECT_TRUE(service.openFiles().hasState(old));
  EXPECT_EQ(createSession(unconfirmed, 1).status, kStaleClient);
  EXPECT_EQ(run(session, {}).status, kOk);

  time += kForgotten;
  makeSession("passing by again");
  EXPECT_EQ(renew(old), kStaleClient);
  EXPECT_FALSE(service.openFiles().hasState(old));
  EXPECT_EQ(run(session, {}).status, kOk);
  time += kForgotten + Seconds(1);
  EXPECT_NE(setClientId("old"), old);
  EXPECT_EQ(run(session, {}).status, kBadSession);
  EXPECT_FALSE(service.openFiles().hasState(client));
}

TEST_F(LeasesTest, NamesAndTheServerAreNotHeldByTheSilent) {
  serve();
  ClientSession session = makeSession("name");
  EXPECT_EQ(run(session, opening()).status, kOk);
  exchangeId(1, "unconfirmed");
  setClientId("old");
  time += kLease + Seconds(1);
  const auto start = std::chrono::steady_clock::now();
  service.waitOnDestroyClients();
  EXPECT_LT(std::chrono::steady_clock::now() - start, Seconds(5));
  callAs(50);
  EXPECT_EQ(identify(7, "name").status, kOk);
  EXPECT_EQ(run(session, {}).status, kBadSession);
}

TEST_F(LeasesTest, SessionsOfTheSilentMakeRoom) {
  serve();
  constexpr unsigned kClients = 128, kSessions = 128;
  nfs4::SessionRequest request{.foreChannel = kChannel, .backChannel = kChannel, .principal = {}};
  for (unsigned i = 0; i < kClients; ++i) {
    nfs4::ClientReply client;
    service.identifyClient({{{}, std::to_string(i)}, {}, false}, client);
    request.clientId = client.clientId;
    for (request.sequenceId = 1; request.sequenceId <= kSessions; ++request.sequenceId) {
      ASSERT_EQ(service.createSession(request).status, nfs::OperationResult::OK);
    }
  }
  const std::uint64_t late = exchangeId(1, "late");
  EXPECT_EQ(createSession(late, 1).status, kNoSpace);
  time += kLease + Seconds(1);
  EXPECT_EQ(createSession(late, 2).status, kOk);
}

TEST_F(LeasesTest, RoomIsMadeOfWhoMattersLeast) {
  serve();
  constexpr unsigned kClients = 4096;
  ClientSession first = makeSession("first");
  const std::uint64_t second = setClientId("second");
  // Those that never confirm themselves push out each other.
  const auto ownerOf = [](const char* who, unsigned i) {
    return nfs4::ClientRequest{{{}, who + std::to_string(i)}, {}, false};
  };
  nfs4::ClientReply reply;
  for (unsigned i = 0; i < kClients + 5; ++i)
    service.identifyClient(ownerOf("stranger ", i), reply);
  EXPECT_EQ(service.findClientByOwner("stranger 0"), nullptr);
  EXPECT_EQ(run(first, {}).status, kOk);
  EXPECT_EQ(renew(second), kOk);
  // Those that do are pushed out when they are silent.
  for (unsigned i = 2; i < kClients; ++i) {
    service.setClientId(ownerOf("client ", i), reply);
    service.confirmClientId(reply.clientId, reply.confirmation, {});
  }
  EXPECT_EQ(identify(1, "too many").status, kDelay);
  EXPECT_EQ(setClient(1, "too many").status, kDelay);
  EXPECT_EQ(run(first, {}).status, kOk);
  time += kLease + Seconds(1);
  EXPECT_EQ(run(first, {}).status, kOk);
  EXPECT_EQ(identify(1, "one more").status, kOk);
  EXPECT_EQ(identify(1, "one more").status, kOk);
  EXPECT_EQ(setClient(1, "one more of the other").status, kOk);
  EXPECT_EQ(run(first, {}).status, kOk);
}

}  // namespace
}  // namespace nfslib::testing
