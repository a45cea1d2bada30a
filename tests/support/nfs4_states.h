#pragma once

#include "nfs4/client.h"
#include "support/nfs4_fixture.h"

#include <map>
#include <string>

namespace nfslib::testing {

constexpr unsigned kStaleHandle = 70, kExpired = 10011, kLocked = 10012, kShareDenied = 10015,
                   kStaleStateId = 10023, kOldStateId = 10024, kBadStateId = 10025,
                   kBadSequenceId = 10026, kNoGrace = 10033, kLocksHeld = 10037, kOpenMode = 10038,
                   kMoved = 10019;
constexpr unsigned kReadAccess = 1, kWriteAccess = 2, kBothAccess = 3;
// nfs_lock_type4
constexpr unsigned kReadLock = 1, kWriteLock = 2, kReadLockWaiting = 3, kWriteLockWaiting = 4;
constexpr std::uint64_t kToTheEnd = UINT64_MAX;
constexpr unsigned kMustConfirm = 2, kLocksSplit = 4;  // flags in the result of OPEN

// Clients of the modern profile, in both minor versions: what they open and lock, with the sequence
// ids that owners count in minor version 0.
class StatesTest : public BothVersionsTest {
 protected:
  struct Client {
    std::uint64_t id = 0;
    ClientSession session;                      // but that of `one` is `own`
    std::map<std::string, unsigned> sequences;  // the next ones; lock owners begin with "lock "
  };

  StatesTest() {
    service.setProfile(profileOf(NfsServerPolicy::modern()));
    dir("/d");
    file("/d/f", "content");
    file("/d/g", "another");
  }
  void SetUp() override {
    BothVersionsTest::SetUp();
    serve(true);
    one.id = idOf("client");
  }
  Client anotherClient(const std::string& name) {
    Client client;
    if (minorVersion == 1) client.session = makeSession(name);
    client.id = idOf(name);
    return client;
  }
  std::uint64_t idOf(const std::string& name) const {
    if (minorVersion == 1) return service.findClientByOwner(name)->getId();
    const Answer told =
        send4(0, Compound().add(op::kSetClientId, std::uint64_t{7}, name, 1U, ""s, ""s, 2U));
    const std::uint64_t id = numberAt(told, 0);
    EXPECT_EQ(send4(0, Compound().add(op::kSetClientIdConfirm, id, numberAt(told, 8))).status, kOk);
    return id;
  }

  Answer run(Client& client, const Compound& compound) {
    if (minorVersion == 0) return send4(0, compound);
    return BothVersionsTest::run(&client == &one ? own : client.session, compound);
  }
  using BothVersionsTest::run;
  // The same, as the next request of these owners.
  Answer inTurn(Client& client, const std::vector<std::string>& owners, const Compound& compound) {
    Answer answer = run(client, compound);
    constexpr unsigned kUncounted[] = {kStaleClient, kStaleStateId, kBadStateId,   kBadSequenceId,
                                       kBadXdr,      kResource,     kNoFileHandle, kMoved};
    if (std::ranges::find(kUncounted, answer.status) == std::end(kUncounted)) {
      for (const std::string& owner : owners) ++client.sequences[owner];
    }
    return answer;
  }

  static unsigned flagsIn(const Answer& answer) {
    return static_cast<unsigned>(numberAt(answer, 16 + 20 - 4));  // behind the change_info4
  }

  Compound opening(Client& client, const std::string& path, const std::string& owner = "owner",
                   unsigned access = kBothAccess, unsigned deny = 0) {
    return at(path).add(op::kOpen, client.sequences[owner], access, deny, client.id, owner,
                        kNoCreate, kByHandle);
  }
  Compound confirming(Client& client, const std::string& path, const FsObjectStateId& id,
                      const std::string& owner = "owner") {
    return at(path).add(20U, id, client.sequences[owner]);
  }
  // Opened and confirmed.
  FsObjectStateId open(Client& client, const std::string& path, const std::string& owner = "owner",
                       unsigned access = kBothAccess, unsigned deny = 0) {
    const Answer answer = inTurn(client, {owner}, opening(client, path, owner, access, deny));
    EXPECT_EQ(answer.status, kOk);
    if (answer.status != kOk) return {};
    const FsObjectStateId id = stateIdIn(answer);
    const bool mustConfirm = (flagsIn(answer) & kMustConfirm) != 0;
    if (!mustConfirm) return id;
    EXPECT_EQ(minorVersion, 0U);
    const Answer confirmed = inTurn(client, {owner}, confirming(client, path, id, owner));
    EXPECT_EQ(confirmed.body(), wire(id));
    return id;
  }
  Answer close(Client& client, const std::string& path, const FsObjectStateId& id,
               const std::string& owner = "owner") {
    return inTurn(client, {owner}, at(path).add(op::kClose, client.sequences[owner], id));
  }
  Answer narrow(Client& client, const std::string& path, const FsObjectStateId& id, unsigned access,
                unsigned deny, const std::string& owner = "owner") {
    return inTurn(client, {owner}, at(path).add(21U, id, client.sequences[owner], access, deny));
  }
  Answer read(const std::string& path, const FsObjectStateId& id) {
    return run(one, at(path).add(op::kRead, id, std::uint64_t{0}, 100U));
  }
  unsigned write(const std::string& path, const FsObjectStateId& id, const std::string& data) {
    return run(one, at(path).add(op::kWrite, id, std::uint64_t{0}, 2U, data)).status;
  }

  // ---- Locks

  struct Range {
    std::uint64_t offset = 0, length = kToTheEnd;
  };
  Compound locking(Client& client, const std::string& path, const FsObjectStateId& opened,
                   const std::string& locker, unsigned type, Range range,
                   const std::string& owner = "owner") {
    return at(path).add(op::kLock, type, false, range.offset, range.length, true,
                        client.sequences[owner], opened, client.sequences["lock " + locker],
                        client.id, locker);
  }
  // By the open, and by the stateid that it gave.
  Answer lock(Client& client, const std::string& path, const FsObjectStateId& opened,
              const std::string& locker, unsigned type, Range range,
              const std::string& owner = "owner") {
    return inTurn(client, {owner, "lock " + locker},
                  locking(client, path, opened, locker, type, range, owner));
  }
  Answer lockOn(Client& client, const std::string& path, const FsObjectStateId& locks,
                const std::string& locker, unsigned type, Range range) {
    const std::string name = "lock " + locker;
    return inTurn(client, {name},
                  at(path).add(op::kLock, type, false, range.offset, range.length, false, locks,
                               client.sequences[name]));
  }
  Answer unlock(Client& client, const std::string& path, const FsObjectStateId& locks,
                const std::string& locker, Range range) {
    const std::string name = "lock " + locker;
    return inTurn(client, {name},
                  at(path).add(op::kLockU, kWriteLock, client.sequences[name], locks, range.offset,
                               range.length));
  }
  Answer testLock(Client& client, const std::string& path, const std::string& locker, unsigned type,
                  Range range) {
    return run(client,
               at(path).add(op::kLockT, type, range.offset, range.length, client.id, locker));
  }
  static std::string denial(Range range, unsigned type, const Client& client,
                            const std::string& locker) {
    return wire(range.offset, range.length, type, client.id, locker);
  }

  Client one;
};

}  // namespace nfslib::testing
