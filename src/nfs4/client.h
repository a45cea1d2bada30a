#pragma once

#include "common/status.h"
#include "common/xdr_records.h"
#include "nfs4/lease.h"
#include "nfs4/session.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace nfslib {

namespace nfs4 {

// Whose a client is. Another one may neither confirm nor replace it.
struct Principal {
  unsigned flavor = 0;
  unsigned uid = 0;

  bool operator==(const Principal&) const = default;
};

// EXCHANGE_ID and SETCLIENTID.
struct ClientRequest {
  ClientOwner owner;
  Principal principal;
  bool updates = false;  // a client that is confirmed
};
struct ClientReply {
  std::uint64_t clientId = 0;
  std::uint32_t sequenceId = 0;  // of the next CREATE_SESSION
  bool isConfirmed = false;
  verifier4 confirmation;  // what SETCLIENTID_CONFIRM has to send
};

struct SessionRequest {
  std::uint64_t clientId = 0;
  std::uint32_t sequenceId = 0;
  std::uint32_t flags = 0;
  ChannelAttributes foreChannel;
  ChannelAttributes backChannel;
  Principal principal;
  std::uint64_t streamId = 0;
};
struct SessionReply {
  nfs::OperationResult status = nfs::OperationResult::SequenceMisordered;
  sessionid session;
  std::uint32_t flags = 0;
  ChannelAttributes foreChannel;
  ChannelAttributes backChannel;
};

}  // namespace nfs4

// One client: an owner that EXCHANGE_ID or SETCLIENTID has named, and its sessions. Thread-safe.
class Nfs4Client {
 public:
  using Sessions = std::map<sessionid, std::shared_ptr<Nfs4Session>>;

  // What the modern profile knows of a client besides. Guarded by NfsService's client lock.
  struct Record {
    std::uint32_t lastSequenceId = 0;  // of CREATE_SESSION, with the reply that it had
    nfs4::SessionReply lastReply;
    verifier4 confirmation;                        // that SETCLIENTID_CONFIRM has sent
    std::optional<verifier4> awaitedConfirmation;  // that it has to send next
    bool hasReclaimed = false;                     // RECLAIM_COMPLETE was sent
  };

  Nfs4Client(std::uint64_t id, ClientOwner owner, unsigned minorVersion,
             const nfs4::Principal& principal, nfs4::Lease::Clock::time_point now);

  std::uint64_t getId() const { return m_id; }
  const ClientOwner& getOwner() const { return m_owner; }
  unsigned getMinorVersion() const { return m_minorVersion; }
  const nfs4::Principal& principal() const { return m_principal; }
  nfs4::Lease& lease() const { return *m_lease; }
  Record& record() { return m_record; }
  // Whether it ever had a session, or was confirmed without one.
  bool isConfirmed() const;
  void confirm();
  Sessions getSessions() const;
  std::size_t sessionCount() const;
  // The client id and the number of the session, little-endian.
  sessionid getLastSessionId() const;

  std::shared_ptr<Nfs4Session> createSession(std::uint64_t streamId, ChannelAttributes& channel,
                                             const Profile& profile);
  void destroySession(const sessionid& id);

 private:
  void incLastSessionId();

  const std::uint64_t m_id;
  const ClientOwner m_owner;
  const unsigned m_minorVersion;
  const nfs4::Principal m_principal;
  const std::shared_ptr<nfs4::Lease> m_lease;
  Record m_record;

  mutable std::mutex m_lock;  // guards what follows; innermost, below NfsService's client lock
  bool m_confirmed = false;
  Sessions m_sessions;
  sessionid m_lastSessionId;
  std::uint64_t m_sessionCounter = 0;
};

}  // namespace nfslib
