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
  // That of the client's next CREATE_SESSION; it never advances.
  unsigned getSequenceId() const { return 1; }
  // Whether it ever had a session.
  bool isConfirmed() const;
  Sessions getSessions() const;
  // The client id and the number of the session, little-endian.
  sessionid getLastSessionId() const;

  std::shared_ptr<Nfs4Session> createSession(std::uint64_t streamId, ChannelAttributes& channel);
  void destroySession(const sessionid& id);

 private:
  void incLastSessionId();

  const std::uint64_t m_id;
  const ClientOwner m_owner;
  const unsigned m_minorVersion;

  mutable std::mutex m_lock;  // guards what follows; innermost, below NfsService's client lock
  bool m_confirmed = false;
  Sessions m_sessions;
  sessionid m_lastSessionId;
  std::uint64_t m_sessionCounter = 0;
};

}  // namespace nfslib
