#pragma once

#include "common/xdr_records.h"
#include "nfs4/session.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace nfslib {

// One client: an owner that EXCHANGE_ID or SETCLIENTID has named, and its sessions. Thread-safe.
class Nfs4Client {
 public:
  using Sessions = std::map<sessionid, std::shared_ptr<Nfs4Session>>;

  Nfs4Client(std::uint64_t id, ClientOwner owner, unsigned minorVersion);

  std::uint64_t getId() const { return m_id; }
  const ClientOwner& getOwner() const { return m_owner; }
  unsigned getMinorVersion() const { return m_minorVersion; }
  // That of the client's next CREATE_SESSION; where the profile does not count, always 1.
  unsigned getSequenceId() const;
  // Whether it ever had a session.
  bool isConfirmed() const;
  Sessions getSessions() const;
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

  mutable std::mutex m_lock;  // guards what follows; innermost, below NfsService's client lock
  bool m_confirmed = false;
  Sessions m_sessions;
  unsigned m_sequenceId = 1;
  sessionid m_lastSessionId;
  std::uint64_t m_sessionCounter = 0;
};

}  // namespace nfslib
