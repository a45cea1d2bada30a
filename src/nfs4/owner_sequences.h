#pragma once

#include "common/nfs_handle.h"
#include "common/status.h"
#include "common/xdr_records.h"
#include "fs/replacement_cache.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace nfslib::nfs4 {

// The requests of the open owners and lock owners of minor version 0: each owner numbers its own,
// and the last one is answered again when it comes again (RFC 7530 section 9.1.7).
//
// Of each client those that acted last are remembered. One that was forgotten is a new owner:
// nothing of what it has is lost, its next request may have any number, and its next OPEN is to be
// confirmed again.
//
// Thread-safe. A record is taken for one operation, as a session is for one COMPOUND; whoever has
// taken an open owner may take a lock owner, never the other way. The lock is innermost.
class OwnerSequences {
 public:
  enum class Kind : char { Open = 'o', Lock = 'l' };
  struct Name {
    Kind kind = Kind::Open;
    StateOwner owner;
  };
  // Of whoever has taken it, but for `isTaken`.
  struct Record {
    bool isUsed = false;  // there was a request that counts
    bool isConfirmed = false;
    std::uint32_t sequenceId = 0;  // of the last request, as the rest
    unsigned operation = 0;
    nfs::OperationResult status = nfs::OperationResult::OK;
    std::vector<std::byte> reply;  // the result, its number and status first
    NfsHandle current;             // the object that OPEN made the current one
    bool isTaken = false;
  };

  // Waits for the operation before. nullptr when there are too many owners to know one more.
  std::shared_ptr<Record> take(const Name& name);
  // An owner without any request that counts is forgotten.
  void giveBack(const Name& name, Record& record);
  void forget(const Name& name);
  void dropClient(std::uint64_t clientId);

  // Whose stateid it was that CLOSE has ended: the CLOSE may come again.
  void rememberClosed(const FsObjectStateId& id, const StateOwner& owner);
  std::optional<StateOwner> closerOf(const FsObjectStateId& id);

 private:
  using Records = utility::replacement_cache<std::string, std::shared_ptr<Record>>;

  // `only` that record, unless it is nullptr.
  void erase(const Name& name, const Record* only);

  std::mutex m_lock;  // guards what follows, and Record::isTaken
  std::condition_variable m_given;
  std::map<std::uint64_t, Records> m_records;  // by client
  std::size_t m_count = 0;
  utility::replacement_cache<std::string, StateOwner> m_closed{kMaxClosed};

  // A record costs 350 bytes and its reply of about 100; names in it and in the reply may be of
  // 1,024. A client costs 8 KiB besides.
  static constexpr std::size_t kMaxOfClient = 1024;
  static constexpr std::size_t kMaxOfAll = 65'536;
  static constexpr std::size_t kMaxClosed = 1024;
};

}  // namespace nfslib::nfs4
