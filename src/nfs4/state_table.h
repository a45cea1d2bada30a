#pragma once

#include <nfslib/file_system.h>
#include <nfslib/nfs_path.h>

#include "common/status.h"
#include "common/xdr_records.h"
#include "fs/replacement_cache.h"
#include "nfs4/byte_ranges.h"
#include "nfs4/owner_sequences.h"

#include <array>
#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

namespace nfslib::nfs4 {

// The open files of all clients and the locks in them, by stateid: RFC 7530 section 9, RFC 8881
// sections 8 and 9.
//
// A stateid's 12 bytes are six of this table, drawn at random, and a number that grows: no two in
// this or another process are the same. An open has one, and so has each owner of locks for every
// open that it locks through; its locks in the file are the same whichever of them it uses, and go
// with the last.
//
// A client that has been silent for longer than its lease keeps what it has until that is in
// somebody's way. Then it loses everything at once, and its stateids are answered EXPIRED until it
// frees them or is dropped (RFC 7530 section 9.6.3, RFC 8881 section 8.4.2.1).
//
// Thread-safe. The lock is innermost, and so is that of `sequences()`; the two are never held
// together. No host call is made under it, what it lets go of is released after it, and whether a
// client is silent is asked without it: who answers may take locks of its own.
class StateTable {
 public:
  struct FileKey {
    std::uint32_t fileSystemId = 0;
    std::uint64_t objectId = 0;
    auto operator<=>(const FileKey&) const = default;
  };
  // Who opens or locks; a client has as many of either as it likes.
  using Owner = StateOwner;
  // A stateid as a client sends it, and where it does.
  struct Reference {
    FsObjectStateId id;
    std::uint64_t clientId = 0;  // of the session; 0 in minor version 0, which does not tell
    FileKey file;                // of the current object
  };
  // What a stateid stands for. `file` is empty when too many are open to hold them all.
  struct Held {
    std::shared_ptr<File> file;
    NfsPath path{"/"};  // that `file` was opened by
  };
  struct Share {
    unsigned access = 0;
    unsigned deny = 0;
    bool isConfirmed = true;  // else the stateid is good for OPEN_CONFIRM only
  };
  struct Opened {
    FsObjectStateId id;
    bool isNew = false;
  };
  struct RangeLock {
    ByteRange range;
    bool isWrite = false;
  };

  StateTable();

  // Tells whether a client's lease has run out; nobody's has, unless this is set, before the table
  // is used. It is called without the table's lock.
  using Silence = std::function<bool(std::uint64_t clientId)>;
  void setSilence(Silence isSilent) { m_isSilent = std::move(isSilent); }

  // ---- Opens

  // Opens `file` for the owner, or opens it further when the owner has it open. ShareDenied when
  // others do not let it, Resource when too much is open.
  nfs::OperationResult open(const FileKey& key, const Owner& owner, const Share& share, Held file,
                            Opened& opened);
  nfs::OperationResult confirm(const Reference& reference);
  // The open that the owner has not confirmed, if there is one, is as if it had never been.
  void dropUnconfirmed(const Owner& owner);
  // The same for one that is new and whose OPEN failed in the end.
  void takeBack(const FsObjectStateId& id);
  // With the locks that were made through it.
  nfs::OperationResult close(const Reference& reference, FsObjectStateId& closed);
  nfs::OperationResult downgrade(const Reference& reference, unsigned access, unsigned deny,
                                 FsObjectStateId& id);
  // Whether the stateid is one that lets its owner access the file so; that of locks is as good as
  // that of the open.
  nfs::OperationResult find(const Reference& reference, unsigned access, Held& held);
  // The file was opened anew, by the path that it has now.
  void replace(const Reference& reference, Held held);
  // Whether nobody denies others that access.
  bool isFree(const FileKey& key, unsigned access);

  // ---- Byte-range locks. Denied tells of one that is in the way. Ranges are bounded: Resource.

  // By the stateid of locks, or by that of the open for an owner that may be new to the file.
  nfs::OperationResult lock(const Reference& reference, const std::optional<Owner>& owner,
                            const RangeLock& wanted, FsObjectStateId& id, LockDenied& denied);
  nfs::OperationResult unlock(const Reference& reference, const ByteRange& range,
                              FsObjectStateId& id);
  // Whether the owner could lock so.
  nfs::OperationResult testLock(const FileKey& key, const Owner& owner, const RangeLock& wanted,
                                LockDenied& denied);
  // The owner has no locks any more, and its stateids end.
  nfs::OperationResult releaseLockOwner(const Owner& owner);

  // ---- Stateids

  // What the stateid is worth, whatever file it is of.
  nfs::OperationResult test(const FsObjectStateId& id, std::uint64_t clientId);
  // Ends that of an owner without locks, and one that has expired.
  nfs::OperationResult free(const FsObjectStateId& id, std::uint64_t clientId);
  // Whose it is: of an open owner or of a lock owner.
  std::optional<Owner> ownerOf(const FsObjectStateId& id, OwnerSequences::Kind kind) const;
  // The client that it was given to; 0 when it is of nothing.
  std::uint64_t clientOf(const FsObjectStateId& id) const;
  // The requests of owners in minor version 0.
  OwnerSequences& sequences() { return m_sequences; }

  // ---- Clients and exports

  bool hasState(std::uint64_t clientId) const;
  // Whether the client lost what it had, and has not freed all the stateids that are remembered.
  bool wasRevoked(std::uint64_t clientId) const;
  void dropClient(std::uint64_t clientId);
  void dropFileSystem(std::uint32_t fileSystemId);

  void rememberExclusive(const FileKey& key, const verifier4& verifier);
  bool madeExclusively(const FileKey& key, const verifier4& verifier);

 private:
  // An owner that has something, by who it is.
  struct OwnerState {
    std::set<std::uint64_t> states;  // numbers of its opens, or of its lock states
    std::uint64_t unconfirmed = 0;   // an open's number
    std::size_t ranges = 0;          // in all files
  };
  using Owners = std::map<Owner, OwnerState>;
  using OwnerRow = Owners::value_type;
  struct Open;
  struct FileState {
    std::map<const OwnerRow*, Open*> opens;
    std::array<std::size_t, 2> accessing{}, denying{};  // opens by bit: read, write
    std::map<const OwnerRow*, std::size_t> lockers;     // the lock states of each
    ByteRanges ranges;
  };
  using Files = std::map<FileKey, FileState>;
  struct Open {
    std::uint64_t number = 0;
    OwnerRow* owner = nullptr;
    Files::value_type* file = nullptr;
    unsigned access = 0;
    unsigned deny = 0;
    std::uint32_t sequenceId = 0;
    bool isConfirmed = true;
    std::map<const OwnerRow*, std::uint64_t> locks{};  // numbers of the lock states
    Held held{};
  };
  // The locks that an owner made through an open.
  struct Lock {
    std::uint64_t number = 0;
    OwnerRow* owner = nullptr;
    Open* open = nullptr;
    std::uint32_t sequenceId = 0;
  };
  struct ClientState {
    std::set<std::uint64_t> opens;  // numbers
    std::size_t owners = 0;
    std::size_t locks = 0;
    std::size_t ranges = 0;
  };
  // What a stateid leads to. `lock` is nullptr when it is one of an open.
  struct Found {
    Open* open = nullptr;
    Lock* lock = nullptr;
  };

  FsObjectStateId idOf(std::uint64_t number, std::uint32_t sequenceId) const;
  nfs::OperationResult numberOf(const FsObjectStateId& id, std::uint64_t clientId,
                                std::uint64_t& number) const;
  nfs::OperationResult lookUp(const FsObjectStateId& id, std::uint64_t clientId, Found& found);
  nfs::OperationResult locate(const Reference& reference, Found& found);
  nfs::OperationResult locateOpen(const Reference& reference, Found& found);

  template <class Attempt>
  nfs::OperationResult settle(const Attempt& attempt);
  const Open* findObjection(const FileState& file, const Open* except, unsigned access,
                            unsigned deny) const;
  nfs::OperationResult checkRange(const FileState& file, const Owner& owner, const OwnerRow* row,
                                  const RangeLock& wanted, LockDenied& denied,
                                  std::uint64_t& objector) const;

  const ClientState& of(std::uint64_t clientId) const;
  bool hasRoomForOwner(const Owners& owners, const Owner& owner) const;
  bool hasRoomForRanges(std::uint64_t clientId) const;
  Open* findOpen(const FileKey& key, const Owner& owner);
  Open& makeOpen(const FileKey& key, const Owner& owner, bool isConfirmed);
  Lock& makeLock(Open& open, const Owner& owner);
  OwnerRow& enter(Owners& owners, const Owner& owner, std::uint64_t number);
  void leave(Owners& owners, OwnerRow& row, std::uint64_t number);
  static void setShare(Open& open, unsigned access, unsigned deny);
  template <class Change>
  void changeRanges(FileState& file, OwnerRow& owner, const Change& change);
  Held eraseOpen(std::uint64_t number);
  void eraseLock(std::uint64_t number);
  std::vector<Held> eraseAllOf(std::uint64_t clientId);

  void revoke(std::uint64_t clientId);
  void rememberRevoked(std::uint64_t number, std::uint64_t clientId);
  void forgetRevoked(std::map<std::uint64_t, std::uint64_t>::iterator revoked);

  const std::uint64_t m_instance;  // 48 bits
  Silence m_isSilent = [](std::uint64_t) { return false; };
  OwnerSequences m_sequences;

  mutable std::mutex m_lock;       // guards what follows
  std::uint64_t m_lastNumber = 0;  // 48 bits
  std::unordered_map<std::uint64_t, Open> m_opens;
  std::unordered_map<std::uint64_t, Lock> m_locks;
  Owners m_openOwners;
  Owners m_lockOwners;
  Files m_files;
  std::map<std::uint64_t, ClientState> m_clients;  // those that have something open
  std::size_t m_ranges = 0;
  std::size_t m_held = 0;
  std::map<std::uint64_t, std::uint64_t> m_revoked;    // whose stateid it was, by number
  std::map<std::uint64_t, std::size_t> m_revokedFrom;  // how many of them, by client
  std::atomic<bool> m_hasRevoked = false;              // whether there are any: every SEQUENCE asks
  // By export and object.
  std::map<std::uint32_t, utility::replacement_cache<std::uint64_t, verifier4>> m_exclusive;
};

}  // namespace nfslib::nfs4
