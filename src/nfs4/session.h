#pragma once

#include <nfslib/file_system.h>
#include <nfslib/metadata.h>
#include <nfslib/nfs_path.h>

#include "common/memory_stream.h"
#include "common/nfs_handle.h"
#include "common/profile.h"
#include "common/status.h"
#include "common/xdr_records.h"
#include "fs/nfs_file_system.h"
#include "fs/replacement_cache.h"
#include "nfs4/lease.h"
#include "nfs4/slot_table.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace nfslib {

class NfsService;

// One session of a client, or the one that stands in for all sessions of minor version 0: its
// current and saved objects, the files that are open in it, and the replies it can repeat.
//
// A COMPOUND takes the session for its whole length (`take`); everything but the constants is used
// under that lock.
class Nfs4Session {
 public:
  struct GiveBack {
    void operator()(Nfs4Session* session) const;
  };
  // The session, taken for a COMPOUND until this goes. Has to go before the session.
  using Lock = std::unique_ptr<Nfs4Session, GiveBack>;

  // One object as an operation sees it.
  struct FileSystemObject {
    NfsHandle handle;  // generation 0: there is no object; object id 0: the pseudo-root
    std::shared_ptr<NfsFileSystem> fileSystem;  // empty for the pseudo-root
    NfsPath path{"/"};
    MetaData metaData;               // as read when the object became current
    std::shared_ptr<File> openFile;  // while it is open
    std::uint32_t stateSequenceId = 0;
    FixedOpaque<12> stateOther;
    std::uint64_t placesSeen = 0;  // of the file system, when `path` was right

    bool isSet() const { return handle.generation != 0; }
    // The directory above all exports.
    bool isPseudoRoot() const { return handle.objectId == 0; }
  };

  using CompoundResponse = nfs4::CompoundResponse;

  // `lease` is the client's; the sessions of no client have none.
  Nfs4Session(const sessionid& id, std::uint64_t clientId, std::uint64_t streamId,
              std::shared_ptr<nfs4::Lease> lease = nullptr);

  // For all COMPOUNDs of minor version 0, of every client.
  static const std::shared_ptr<Nfs4Session>& getDefaultSession();

  const sessionid& id() const { return m_id; }
  std::uint64_t clientId() const { return m_clientId; }
  // The client was heard of.
  void renewLease(nfs4::Lease::Clock::time_point now) {
    if (m_lease) m_lease->renew(now);
  }
  // The session was destroyed: who has waited to take it comes too late.
  void setGone() { m_isGone = true; }
  bool isGone() const { return m_isGone; }
  // Waits for the COMPOUND before. Where the profile keeps objects from one to the next, paths and
  // exports do not last: objects that others have moved are where they are now, those that are gone
  // are no longer set.
  Lock take(const Profile& profile);

  // ---- Objects. All return whether the current object is another one now.

  FileSystemObject& getCurrentFileSystemObject() { return m_current; }
  FileSystemObject& getSavedFileSystemObject() { return m_saved; }
  // The object that the handle names.
  bool setCurrentFileSystemObject(const NfsService& service, const NfsHandle& handle);
  // The pseudo-root.
  bool setCurrentFileSystemObject(const NfsService& service);
  // The child of the current object, which for the pseudo-root is an export.
  bool setCurrentFileSystemObject(const NfsService& service, const std::string& name);
  bool setParentAsCurrentFileSystemObject();
  void saveCurrentFileSystemObject() { m_saved = m_current; }
  bool restoreSavedFileSystemObject(const NfsService& service);
  // Why the last of these found no object: what the host gave as its reason where the profile tells
  // that, else `usual`.
  nfs::OperationResult refusalOr(nfs::OperationResult usual) const;
  // Lets go of the objects of an export that was withdrawn; when a COMPOUND does not end in time,
  // as soon as the session is taken again. Not to be called by who has taken it.
  void releaseObjects(std::uint32_t fileSystemId, std::chrono::steady_clock::time_point deadline);

  // ---- Open files. A file is open until it is closed for everybody who opened it, whatever else
  // becomes current in between; whenever it is current again its open state is found.

  // Who opens: a client opens a file as often as it likes for one owner, and closes it once.
  using OpenOwner = std::pair<std::uint64_t, std::string>;
  // The current object's file was opened. False when the owner had it open before. Throws
  // NfsOperationError(Resource) when the session has too much open already.
  bool opened(std::shared_ptr<File> file, const OpenOwner& owner);
  // The current object's file is closed for one of its owners. True when that was the last one.
  bool closed();

  // The verifiers of files that were made exclusively: who sends the same one made it.
  void rememberExclusive(std::uint64_t fileId, const verifier4& verifier);
  bool madeExclusively(std::uint64_t fileId, const verifier4& verifier);

  // ---- Limits and the replies that can be repeated

  // Cuts the attributes to what this server keeps to, and stores them.
  void applyChannelAttributes(ChannelAttributes& channel, const Profile& profile);
  const ChannelAttributes& foreChannel() const { return m_foreChannel; }

  // Of the modern profile; the classic one keeps replies by `prepareToCache`.
  nfs4::SlotTable& slots() { return m_slots; }
  // Empty when the slot has none.
  std::shared_ptr<CompoundResponse> findCachedResponse(unsigned slot) const;
  const std::shared_ptr<CompoundResponse>& getCurrentResponse() const { return m_response; }
  void setCurrentResponse(std::shared_ptr<CompoundResponse> response);
  // The results from here on, which `reply` gets, are to be kept for the slot. False when the
  // session has no room for another slot.
  bool prepareToCache(unsigned slot, unsigned sequenceId, const MemoryStream& reply);
  // The same for a response that is the caller's.
  void record(std::shared_ptr<CompoundResponse> response, const MemoryStream& reply);
  // At the end of a COMPOUND: keeps what was recorded, or appends what is repeated. Throws
  // NfsOperationError(ReplyTooBig) when there is no room for that.
  void flush(MemoryStream& reply, nfs::OperationResult status, unsigned operationsCount);
  // The same for a COMPOUND that has ended without results.
  void fail(nfs::OperationResult status);
  // The bytes of the results so far, as the limits count them.
  unsigned responseSize(const MemoryStream& reply) const;
  // Whether the result that has its status at `statusPosition` fits the limits. If not, its status
  // is replaced and its body cut off.
  nfs::OperationResult checkResponseSize(unsigned statusPosition, MemoryStream& reply) const;

 private:
  using FileKey = std::pair<std::uint32_t, std::uint64_t>;  // number of the export, object id
  struct OpenFile {
    std::set<OpenOwner> owners;
    std::shared_ptr<File> file;  // not kept when there are too many
    NfsPath path{"/"};           // that it was opened by
  };

  static FileKey keyOf(const NfsHandle& handle) { return {handle.fileSystemId, handle.objectId}; }
  bool setCurrent(const NfsHandle& handle, std::shared_ptr<NfsFileSystem> fileSystem, NfsPath path,
                  MetaData metaData);
  void findOpenState();
  // False when the session was not given back in time; without a deadline, never.
  bool enter(std::optional<std::chrono::steady_clock::time_point> deadline);
  void releaseWithdrawn();
  void followMoves();
  template <class Set, class StatusOf>
  bool orFalse(const Set& set, const StatusOf& statusOf);

  const sessionid m_id;
  const std::uint64_t m_clientId;
  [[maybe_unused]] const std::uint64_t m_streamId;  // of the request that made the session
  const std::shared_ptr<nfs4::Lease> m_lease;
  std::atomic<bool> m_isGone{false};

  std::mutex m_takenLock;  // guards the two fields below; innermost
  std::condition_variable m_given;
  bool m_isTaken = false;
  std::vector<std::uint32_t> m_withdrawn;  // exports whose objects are still to be let go

  // What follows is of whoever has taken the session, which comes before every lock but the request
  // lock.
  bool m_tellsHostFailures = false;
  std::optional<nfs::OperationResult> m_refusal;
  FileSystemObject m_current;
  FileSystemObject m_saved;
  std::map<FileKey, OpenFile> m_openFiles;
  // By file id; made when there is one.
  std::optional<utility::replacement_cache<std::uint64_t, verifier4>> m_exclusive;
  ChannelAttributes m_foreChannel;
  nfs4::SlotTable m_slots;
  std::map<unsigned, std::shared_ptr<CompoundResponse>> m_responses;  // by slot
  std::shared_ptr<CompoundResponse> m_response;                       // being recorded, or repeated
  std::optional<unsigned> m_recordStart;  // where in the reply recording began
};

}  // namespace nfslib
