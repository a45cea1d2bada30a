#pragma once

#include "common/memory_stream.h"
#include "common/nfs_handle.h"
#include "common/xdr_records.h"
#include "nfs3/attributes.h"
#include "support/rpc_client.h"

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// A client of NFS version 3 (RFC 1813) on a connection of its own, one typed call a procedure.

namespace nfslib::testing {

// Stands for the status of a call that got no results: accept status GARBAGE_ARGS.
constexpr unsigned kGarbageCall = 0x8000'0004;

// sattr3; what is empty is left as it is.
struct SetAttributes {
  enum class How : unsigned { Leave = 0, ServerTime = 1, ClientTime = 2 };
  struct Time {
    How how = How::Leave;
    std::uint32_t seconds = 0;  // with ClientTime
  };
  std::optional<unsigned> mode{}, uid{}, gid{};
  std::optional<std::uint64_t> size{};
  Time accessTime{}, modifyTime{};

  bool setsModifyTime() const { return modifyTime.how != How::Leave; }
};

inline MemoryStream& operator<<(MemoryStream& out, const SetAttributes& wanted) {
  const auto putOptional = [&](const auto& value) {
    out << value.has_value();
    if (value) out << *value;
  };
  const auto putTime = [&](const SetAttributes::Time& time) {
    constexpr unsigned kNanoseconds = 999;  // which are dropped
    out << static_cast<unsigned>(time.how);
    if (time.how == SetAttributes::How::ClientTime) out << time.seconds << kNanoseconds;
  };
  putOptional(wanted.mode);
  putOptional(wanted.uid);
  putOptional(wanted.gid);
  putOptional(wanted.size);
  putTime(wanted.accessTime);
  putTime(wanted.modifyTime);
  return out;
}

struct WccReply {
  struct {
    std::uint64_t size = 0;
    std::uint32_t modifyTime = 0, changeTime = 0;
  } before;
  nfs3::fattr3 after;
};

// What came back; the fields that the procedure has. With status 70 and with kGarbageCall there is
// nothing but the status.
struct Nfs3Reply {
  unsigned status = 0;
  NfsHandle handle;            // of what was found or made
  nfs3::fattr3 attributes;     // of the object
  nfs3::fattr3 dirAttributes;  // LOOKUP
  WccReply wcc;                // of the file or the directory; with RENAME, of the one left
  WccReply toWcc;              // RENAME
  unsigned count = 0;          // READ, WRITE
  bool eof = false;            // READ
  unsigned committed = 0;      // WRITE
  std::uint64_t verifier = 0;  // WRITE, COMMIT
  std::string data;            // READ; the text of READLINK
};

struct Nfs3Entry {
  std::string name;
  std::uint64_t fileId = 0;
  nfs3::fattr3 attributes;  // READDIRPLUS, like the handle
  NfsHandle handle;
};

struct Nfs3Listing {
  unsigned status = 0;
  nfs3::fattr3 dirAttributes;  // of the last page
  std::vector<Nfs3Entry> entries;
};

// The reply of a call that must succeed.
inline Nfs3Reply checked(Nfs3Reply reply) {
  if (reply.status != 0) throw std::runtime_error("status " + std::to_string(reply.status));
  return reply;
}

// Throws std::runtime_error when a reply does not have the shape that it should.
class Nfs3Client {
 public:
  explicit Nfs3Client(unsigned port) : m_peer(SOCK_STREAM, port) {}

  // The root of the export `path`.
  NfsHandle mount(const std::string& path) {
    constexpr unsigned kMount = 100005, kMnt = 1;
    NfsHandle root;
    if (call(kMount, kMnt, path).status != 0) throw std::runtime_error("not mounted");
    m_results >> root;
    return root;
  }

  Nfs3Reply getAttributes(const NfsHandle& object) {
    Nfs3Reply reply = callNfs(1, object);
    if (reply.status == 0) takeBare(reply.attributes);
    return whole(reply);
  }
  // `guard` is a change time; version 3 servers may compare it with the object's.
  Nfs3Reply setAttributes(const NfsHandle& object, const SetAttributes& wanted,
                          std::optional<std::uint32_t> guard = {}) {
    constexpr unsigned kNoNanoseconds = 0;
    return always(guard ? callNfs(2, object, wanted, true, *guard, kNoNanoseconds)
                        : callNfs(2, object, wanted, false),
                  &Nfs3Reply::wcc);
  }
  Nfs3Reply lookup(const NfsHandle& dir, const std::string& name) {
    const Nfs3Reply reply = callNfs(3, dir, name);
    if (reply.status != 0 && hasBody(reply)) takeFlag(false);
    return onSuccess(reply, &Nfs3Reply::handle, &Nfs3Reply::attributes, &Nfs3Reply::dirAttributes);
  }
  Nfs3Reply readLink(const NfsHandle& link) {
    return onSuccess(callNfs(5, link), &Nfs3Reply::attributes, &Nfs3Reply::data);
  }
  Nfs3Reply read(const NfsHandle& file, std::uint64_t offset, unsigned count) {
    return onSuccess(callNfs(6, file, offset, count), &Nfs3Reply::attributes, &Nfs3Reply::count,
                     &Nfs3Reply::eof, &Nfs3Reply::data);
  }
  Nfs3Reply write(const NfsHandle& file, std::uint64_t offset, const std::string& data,
                  unsigned stable) {
    return always(callNfs(7, file, offset, static_cast<unsigned>(data.size()), stable, data),
                  &Nfs3Reply::wcc, &Nfs3Reply::count, &Nfs3Reply::committed, &Nfs3Reply::verifier);
  }
  // `how`: 0 UNCHECKED, 1 GUARDED, 2 EXCLUSIVE, which sends no attributes.
  Nfs3Reply create(const NfsHandle& dir, const std::string& name, unsigned how,
                   const SetAttributes& wanted) {
    constexpr unsigned kExclusive = 2;
    constexpr unsigned long kVerifier = 0x0123'4567'89AB'CDEF;
    return made(how == kExclusive ? callNfs(8, dir, name, how, kVerifier)
                                  : callNfs(8, dir, name, how, wanted));
  }
  Nfs3Reply makeDirectory(const NfsHandle& dir, const std::string& name,
                          const SetAttributes& wanted) {
    return made(callNfs(9, dir, name, wanted));
  }
  Nfs3Reply makeSymlink(const NfsHandle& dir, const std::string& name, const SetAttributes& wanted,
                        const std::string& target) {
    return made(callNfs(10, dir, name, wanted, target));
  }
  Nfs3Reply remove(const NfsHandle& dir, const std::string& name) {
    return always(callNfs(12, dir, name), &Nfs3Reply::wcc);
  }
  Nfs3Reply removeDirectory(const NfsHandle& dir, const std::string& name) {
    return always(callNfs(13, dir, name), &Nfs3Reply::wcc);
  }
  Nfs3Reply rename(const NfsHandle& from, const std::string& name, const NfsHandle& to,
                   const std::string& newName) {
    return always(callNfs(14, from, name, to, newName), &Nfs3Reply::wcc, &Nfs3Reply::toWcc);
  }
  Nfs3Reply link(const NfsHandle& file, const NfsHandle& dir, const std::string& name) {
    return always(callNfs(15, file, dir, name), &Nfs3Reply::attributes, &Nfs3Reply::wcc);
  }
  Nfs3Reply commit(const NfsHandle& file, std::uint64_t offset, unsigned count) {
    return always(callNfs(21, file, offset, count), &Nfs3Reply::wcc, &Nfs3Reply::verifier);
  }
  // The whole directory in pages of at most `pageSize` bytes, by READDIRPLUS or READDIR.
  Nfs3Listing list(const NfsHandle& dir, unsigned pageSize, bool plus = true) {
    Nfs3Listing listing;
    constexpr unsigned long kVerifier = 0;
    unsigned long cookie = 0;
    for (bool eof = false; !eof;) {
      const Nfs3Reply reply = plus ? callNfs(17, dir, cookie, kVerifier, pageSize / 2, pageSize)
                                   : callNfs(16, dir, cookie, kVerifier, pageSize);
      listing.status = reply.status;
      if (reply.status != 0) {
        whole(reply);
        return listing;
      }
      take(listing.dirAttributes);
      m_results.skipInput(sizeof kVerifier);
      bool another = false;
      const std::size_t before = listing.entries.size();
      while (m_results >> another, another) {
        Nfs3Entry& entry = listing.entries.emplace_back();
        m_results >> entry.fileId >> entry.name >> cookie;
        if (!plus) continue;
        take(entry.attributes);
        takeFlag(true);
        m_results >> entry.handle;
      }
      m_results >> eof;
      whole(reply);
      if (!eof && listing.entries.size() == before) throw std::runtime_error("an empty page");
    }
    return listing;
  }

 private:
  static constexpr unsigned kNfs = 100003;
  static constexpr unsigned kStale = 70;

  // Sends the call; its results follow in m_results, behind the status. The streams stay: each has
  // areas of its own, which take longer to make than a call.
  template <class... Arguments>
  Nfs3Reply call(unsigned program, unsigned procedure, const Arguments&... arguments) {
    m_call.clearOutput();
    for (const unsigned word : {++m_xid, 0U, 2U, program, 3U, procedure, 0U, 0U, 0U, 0U})
      m_call << word;
    (m_call << ... << arguments);
    const auto bytes = m_call.getOutputBuffer();
    m_peer.send(record(Bytes(bytes.begin(), bytes.end())));
    const auto reply = m_peer.receiveRecord();
    if (!reply) throw std::runtime_error("no reply");
    m_results.setInputData({reply->data(), reply->size()});
    std::array<unsigned, 6> head{};
    for (unsigned& word : head) m_results >> word;
    constexpr unsigned kGarbageArguments = 4;
    Nfs3Reply result;
    if (head == std::array{m_xid, 1U, 0U, 0U, 0U, kGarbageArguments}) {
      result.status = kGarbageCall;
    } else if (head == std::array{m_xid, 1U, 0U, 0U, 0U, 0U}) {
      m_results >> result.status;
    } else {
      throw std::runtime_error("not accepted");
    }
    if (result.status == kStale) takeFlag(false);
    return result;
  }
  template <class... Arguments>
  Nfs3Reply callNfs(unsigned procedure, const Arguments&... arguments) {
    return call(kNfs, procedure, arguments...);
  }

  static bool hasBody(const Nfs3Reply& reply) {
    return reply.status != kStale && reply.status != kGarbageCall;
  }
  // The reply, whose results were all taken.
  Nfs3Reply whole(Nfs3Reply reply) const {
    if (!m_results || m_results.getInputDataSize() != 0) {
      throw std::runtime_error("status " + std::to_string(reply.status) + ", results with " +
                               std::to_string(m_results.getInputDataSize()) +
                               " bytes too many or with too few");
    }
    return reply;
  }
  // The reply with these fields, in the order of the wire, where it has a body: one that tells of a
  // success, or any.
  template <class... Fields>
  Nfs3Reply onSuccess(Nfs3Reply reply, Fields Nfs3Reply::*... fields) {
    if (reply.status == 0) (take(reply.*fields), ...);
    return whole(std::move(reply));
  }
  template <class... Fields>
  Nfs3Reply always(Nfs3Reply reply, Fields Nfs3Reply::*... fields) {
    if (hasBody(reply)) (take(reply.*fields), ...);
    return whole(std::move(reply));
  }
  Nfs3Reply made(Nfs3Reply reply) {
    if (reply.status != 0) return always(std::move(reply), &Nfs3Reply::wcc);
    takeFlag(true);
    return always(std::move(reply), &Nfs3Reply::handle, &Nfs3Reply::attributes, &Nfs3Reply::wcc);
  }

  void takeFlag(bool wanted) {
    bool flag = !wanted;
    m_results >> flag;
    if (flag != wanted) throw std::runtime_error("a wrong flag in the results");
  }
  std::uint32_t takeTime() {
    std::uint32_t seconds = 0, nanoseconds = 0;
    m_results >> seconds >> nanoseconds;
    if (nanoseconds != 0) throw std::runtime_error("a time with nanoseconds");
    return seconds;
  }
  template <class Value>
  void take(Value& value) {
    m_results >> value;
  }
  void takeBare(nfs3::fattr3& value) {
    unsigned long device = 0;
    m_results >> value.type >> value.mode >> value.linkCount >> value.uid >> value.gid >>
        value.size >> value.used >> device >> value.fileSystemId >> value.fileId;
    value.accessTime = takeTime();
    value.modifyTime = takeTime();
    value.changeTime = takeTime();
  }
  void take(nfs3::fattr3& value) {
    takeFlag(true);
    takeBare(value);
  }
  void take(WccReply& value) {
    takeFlag(true);
    m_results >> value.before.size;
    value.before.modifyTime = takeTime();
    value.before.changeTime = takeTime();
    take(value.after);
  }

  RpcClient m_peer;
  MemoryStream m_call;
  MemoryStream m_results;
  unsigned m_xid = 0;
};

}  // namespace nfslib::testing
