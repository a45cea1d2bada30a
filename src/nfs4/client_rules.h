#pragma once

#include "common/xdr_records.h"
#include "nfs4/call.h"
#include "nfs4/client.h"

#include <cstdint>

namespace nfslib::nfs4 {

// How clients make themselves known, and what their sessions repeat. One kind a profile, without
// data of its own.
class ClientRules {
 public:
  struct SlotRequest {
    std::uint32_t sequenceId = 0;
    std::uint32_t slot = 0;
    std::uint32_t highestSlot = 0;
    bool cacheThis = false;
  };
  struct SlotReply {
    std::uint32_t highestSlot = 0;
    std::uint32_t targetSlot = 0;
    std::uint32_t statusFlags = 0;
  };
  struct ExchangeRequest {
    ClientOwner owner;
    std::uint32_t flags = 0;
    std::uint32_t protection = 0;
  };

  // SEQUENCE, in the session that the call has taken. A COMPOUND that is repeated has its reply as
  // the session's current response, and `responseFromCache` set.
  virtual nfs::OperationResult enterSlot(Call& call, const SlotRequest& request,
                                         SlotReply& reply) const = 0;
  virtual nfs::OperationResult exchangeId(Call& call, const ExchangeRequest& request,
                                          ClientReply& reply) const = 0;
  virtual SessionReply createSession(Call& call, const SessionRequest& request) const = 0;
  virtual nfs::OperationResult destroySession(Call& call, const sessionid& session) const = 0;
  virtual nfs::OperationResult destroyClient(Call& call, std::uint64_t id) const = 0;
  virtual nfs::OperationResult reclaimComplete(Call& call, bool ofOneFileSystem) const = 0;
  virtual nfs::OperationResult setClientId(Call& call, const ClientOwner& owner,
                                           ClientReply& reply) const = 0;
  virtual nfs::OperationResult confirmClientId(Call& call, std::uint64_t id,
                                               const verifier4& confirmation) const = 0;

 protected:
  ~ClientRules() = default;
};

// Of EXCHANGE_ID.
enum StateProtection : unsigned { kNone = 0, kMachineCredential = 1, kSsv = 2 };
constexpr unsigned kUpdateConfirmed = 0x4000'0000;  // EXCHGID4_FLAG_UPD_CONFIRMED_REC_A

// Those of the profile that the call is served by.
const ClientRules& clientRules(const Call& call);
// Of the classic profile: a slot is what a client first numbers so, and clients are what they say.
const ClientRules& classicClientRules();
// Of the modern one: as RFC 8881 and RFC 7530 have it.
const ClientRules& modernClientRules();

}  // namespace nfslib::nfs4
