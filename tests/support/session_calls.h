#pragma once

#include "support/nfs4_fixture.h"

namespace nfslib::testing {

// COMPOUNDs of one operation by which clients and sessions come and go.
class SessionCalls : public Nfs4Test {
 protected:
  using Nfs4Test::Nfs4Test;

  Answer identify(std::uint64_t verifier, const std::string& owner, unsigned flags = 0) const {
    return send4(1, Compound().add(op::kExchangeId, exchangeArguments(verifier, owner, flags)));
  }
  Answer createSession(std::uint64_t client, unsigned sequenceId,
                       const ChannelAttributes& fore = kChannel) const {
    return send4(1, Compound().add(op::kCreateSession, sessionArguments(client, sequenceId, fore)));
  }
  unsigned destroy(const sessionid& id) const {
    return send4(1, Compound().add(op::kDestroySession, id)).status;
  }
  unsigned destroy(std::uint64_t client) const {
    return send4(1, Compound().add(op::kDestroyClientId, client)).status;
  }
  Answer sequence(const sessionid& id, unsigned sequenceId, unsigned slot, bool cached,
                  const Compound& rest = {}) const {
    return send4(1, Compound().add(op::kSequence, id, sequenceId, slot, 63U, cached).add(rest));
  }
};

// The same in the modern profile, at a time that the test tells.
class ModernSessionCalls : public SessionCalls {
 protected:
  using Seconds = std::chrono::seconds;

  ModernSessionCalls() : SessionCalls(LogLevel::dbg) {
    service.setProfile(profileOf(NfsServerPolicy::modern()));
    service.setLeaseClock([this] { return std::chrono::steady_clock::time_point(time); });
    dir("/d");
    file("/d/f", "content");
  }

  // Who calls from now on.
  void callAs(unsigned uid) {
    server4.setAllowedGroupId(60);
    caller4.caller.uid = uid;
    caller4.caller.gid = 60;
  }
  Answer setClient(std::uint64_t verifier, const std::string& owner) const {
    return send4(0, Compound().add(op::kSetClientId, verifier, owner, 1U, ""s, ""s, 2U));
  }
  unsigned confirm(std::uint64_t client, std::uint64_t confirmation) const {
    return send4(0, Compound().add(op::kSetClientIdConfirm, client, confirmation)).status;
  }
  // Opens /d/f and leaves it open.
  Compound opening(std::uint64_t client = 0) {
    return at("/d/f").add(op::kOpen, 0U, 1U, 0U, client, "owner"s, kNoCreate, kByHandle);
  }
  unsigned renew(std::uint64_t client) const {
    return send4(0, Compound().add(30U, client)).status;
  }

  Seconds time{1'000'000};
};

constexpr unsigned kPermission = 1, kDelay = 10008, kComplete = 10054, kUncached = 10068,
                   kFalseRetry = 10076, kNotOnly = 10081, kUpdate = 0x4000'0000,
                   kConfirmedFlag = 0x8000'0000;

}  // namespace nfslib::testing
