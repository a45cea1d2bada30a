#include "nfs4/client.h"
#include "support/session_calls.h"

// Clients as the modern profile knows them: RFC 8881 section 18.35.4 and RFC 7530 sections 16.33
// and 16.34.

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;

class ClientRecordsTest : public ModernSessionCalls {
 protected:
  bool hasState(std::uint64_t client) const { return service.openFiles().hasState(client); }
};

TEST_F(ClientRecordsTest, ExchangeIdGoesByWhatIsKnown) {
  serve();
  // What the owner has done before, and what becomes of the client that it had.
  enum Before { Nothing, Named, Idle, Active };
  struct Case {
    Before before;
    unsigned verifier;  // 1 is that of before
    unsigned user;      // 10 is the one of before
    bool updates;
    unsigned status;
    bool isSame;  // client id; such a client is confirmed
    bool stays;   // the session of before
  };
  const Case cases[] = {
      {Nothing, 1, 10, false, kOk, false, false},
      {Nothing, 1, 10, true, kNoEntry, false, false},
      {Named, 1, 10, false, kOk, false, false},
      {Named, 2, 20, false, kOk, false, false},
      {Named, 1, 10, true, kNoEntry, false, false},
      {Active, 1, 10, false, kOk, true, true},
      {Active, 1, 10, true, kOk, true, true},
      {Active, 2, 10, false, kOk, false, true},
      {Active, 2, 10, true, kNotSame, false, true},
      {Active, 1, 20, false, kInUse, false, true},
      {Active, 1, 20, true, kPermission, false, true},
      {Active, 2, 20, true, kNotSame, false, true},
      {Idle, 1, 20, false, kOk, false, false},
      {Idle, 1, 10, false, kOk, true, false},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    const Case& now = cases[i];
    const std::string owner = "owner " + std::to_string(i);
    callAs(10);
    const std::uint64_t before = now.before == Nothing ? 0 : numberAt(identify(1, owner), 0);
    sessionid session;
    if (now.before > Named) session = idIn(createSession(before, 1));
    if (now.before == Idle) {
      EXPECT_EQ(destroy(session), kOk);
    }

    callAs(now.user);
    const Answer answer = identify(now.verifier, owner, now.updates ? kUpdate : 0);
    EXPECT_EQ(answer.status, now.status);
    if (now.status == kOk) {
      EXPECT_EQ(numberAt(answer, 0) == before, now.isSame);
      EXPECT_EQ((numberAt(answer, 8) & kConfirmedFlag) != 0, now.isSame);
      EXPECT_EQ(createSession(numberAt(answer, 0), now.before > Named && now.isSame ? 2 : 1).status,
                kOk);
    }
    callAs(10);
    const bool isReplaced = now.status == kOk && !now.isSame;
    EXPECT_EQ(sequence(session, 1, 0, false).status, now.stays && !isReplaced ? kOk : kBadSession);
    if (now.before == Named && isReplaced) {
      EXPECT_EQ(createSession(before, 1).status, kStaleClient);
    }
  }
  EXPECT_EQ(send4(1, Compound().add(op::kExchangeId, std::uint64_t{1}, "o"s, 0U, 1U, Bitmap{},
                                    Bitmap{}, 0U))
                .status,
            kInvalid);
  EXPECT_EQ(send4(1, Compound().add(op::kExchangeId, std::uint64_t{1}, "o"s, 0U, 2U, Bitmap{},
                                    Bitmap{}, 0U, 0U, 0U, 0U, 0U))
                .status,
            10079U);
}

TEST_F(ClientRecordsTest, StateOfBeforeARestartGoesWithItsConfirmation) {
  serve();
  ClientSession old = makeSession("client");
  const std::uint64_t before = service.findClientByOwner("client")->getId();
  EXPECT_EQ(run(old, opening()).status, kOk);
  const std::uint64_t after = exchangeId(8, "client");
  EXPECT_EQ(run(old, {}).status, kOk);
  EXPECT_TRUE(hasState(before));
  callAs(50);
  EXPECT_EQ(createSession(after, 1).status, kInUse);
  callAs(0);
  EXPECT_EQ(createSession(after, 1).status, kOk);
  EXPECT_FALSE(hasState(before));
  EXPECT_EQ(run(old, {}).status, kBadSession);
  EXPECT_EQ(createSession(before, 2).status, kStaleClient);
}

TEST_F(ClientRecordsTest, NothingIsOpenedForWhoHasGone) {
  serve();
  ClientSession session = makeSession("client");
  const std::uint64_t client = service.findClientByOwner("client")->getId();
  host.onCall = [&](std::string_view name) {
    if (name == "OpenFile") service.deleteClientId(client);
  };
  constexpr unsigned kDeadSession = 10078;
  EXPECT_EQ(run(session, opening()).status, kDeadSession);
  host.onCall = nullptr;
  EXPECT_EQ(run(session, {}).status, kBadSession);
  EXPECT_FALSE(hasState(client));
}

TEST_F(ClientRecordsTest, SetClientIdKeepsStateUntilARestartIsConfirmed) {
  serve();
  const Answer first = setClient(1, "client");
  const std::uint64_t client = numberAt(first, 0), confirmation = numberAt(first, 8);
  EXPECT_EQ(send4(0, opening(client)).status, kStaleClient);  // not confirmed
  EXPECT_EQ(confirm(client, confirmation + 1), kStaleClient);
  EXPECT_EQ(confirm(client + 1, confirmation), kStaleClient);
  callAs(50);
  EXPECT_EQ(confirm(client, confirmation), kInUse);
  callAs(0);
  EXPECT_EQ(confirm(client, confirmation), kOk);
  EXPECT_EQ(confirm(client, confirmation), kOk);
  EXPECT_EQ(send4(0, opening(client)).status, kOk);

  // Another place to call back.
  const Answer moved = setClient(1, "client");
  EXPECT_EQ(numberAt(moved, 0), client);
  EXPECT_NE(numberAt(moved, 8), confirmation);
  EXPECT_EQ(confirm(client, confirmation), kOk);  // repeated; this one is still awaited:
  EXPECT_EQ(confirm(client, numberAt(moved, 8)), kOk);
  EXPECT_EQ(confirm(client, confirmation), kStaleClient);
  EXPECT_TRUE(hasState(client));

  // Started anew, twice.
  const Answer lost = setClient(2, "client");
  const Answer last = setClient(3, "client");
  EXPECT_NE(numberAt(lost, 0), client);
  EXPECT_EQ(confirm(numberAt(lost, 0), numberAt(lost, 8)), kStaleClient);
  EXPECT_EQ(renew(client), kOk);
  EXPECT_TRUE(hasState(client));
  EXPECT_EQ(confirm(numberAt(last, 0), numberAt(last, 8)), kOk);
  EXPECT_FALSE(hasState(client));
  EXPECT_EQ(renew(client), kStaleClient);

  // Somebody else under the same name, while the client has something open and when it has not.
  const std::uint64_t owner = numberAt(last, 0);
  const FsObjectStateId open = stateIdIn(send4(0, opening(owner)));
  EXPECT_EQ(send4(0, at("/d/f").add(20U, open, 1U)).status, kOk);  // OPEN_CONFIRM
  callAs(50);
  EXPECT_EQ(setClient(3, "client").body(), wire(""s, ""s));
  callAs(0);
  EXPECT_EQ(send4(0, at("/d/f").add(op::kClose, 2U, open)).status, kOk);
  callAs(50);
  const Answer stranger = setClient(3, "client");
  EXPECT_EQ(confirm(numberAt(stranger, 0), numberAt(stranger, 8)), kOk);
  EXPECT_EQ(renew(owner), kStaleClient);
}

TEST_F(ClientRecordsTest, ClientsAreDestroyedWhenTheyHaveNothing) {
  serve();
  ClientSession session = makeSession("client");
  const std::uint64_t client = service.findClientByOwner("client")->getId();
  EXPECT_EQ(run(session, Compound().add(op::kReclaimComplete, true)).status, kNoFileHandle);
  EXPECT_EQ(run(session, at("/d").add(op::kReclaimComplete, true)).status, kOk);
  for (const unsigned status : {kOk, kComplete, kComplete}) {
    EXPECT_EQ(run(session, Compound().add(op::kReclaimComplete, false)).status, status);
  }
  EXPECT_EQ(destroy(client), kClientBusy);
  EXPECT_EQ(run(session, opening()).status, kOk);
  EXPECT_EQ(destroy(session.id), kOk);
  EXPECT_EQ(destroy(client), kClientBusy);
  service.openFiles().dropClient(client);
  EXPECT_EQ(destroy(client), kOk);
  EXPECT_EQ(destroy(client), kStaleClient);
  EXPECT_EQ(destroy(exchangeId(1, "unconfirmed")), kOk);
  EXPECT_EQ(destroy(setClientId("of the other minor version")), kStaleClient);
}

}  // namespace
}  // namespace nfslib::testing
