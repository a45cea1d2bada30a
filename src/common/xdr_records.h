#pragma once

#include <nfslib/metadata.h>

#include "common/memory_stream.h"
#include "common/nfs_handle.h"
#include "common/status.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The records of the protocols that more than one program uses, each decoded and encoded here and
// nowhere else. Fields stand in wire order. Names follow RFC 7530 and RFC 5661.

namespace nfslib {

// Bytes of a fixed length, sent without a length word. A short input leaves the rest zero and does
// not mark the stream failed: the integers around it do.
template <std::size_t N>
struct FixedOpaque {
  std::array<std::byte, N> bytes{};

  bool operator==(const FixedOpaque&) const = default;
  auto operator<=>(const FixedOpaque&) const = default;

  friend MemoryStream& operator>>(MemoryStream& in, FixedOpaque& value) {
    value.bytes.fill(std::byte{0});
    in.read(value.bytes.data(), N);
    return in;
  }
  friend MemoryStream& operator<<(MemoryStream& out, const FixedOpaque& value) {
    out.write(value.bytes.data(), N);
    return out;
  }
};

struct verifier4 : FixedOpaque<8> {};
struct sessionid : FixedOpaque<16> {};

struct nfstime4 {
  std::int64_t seconds = 0;
  std::uint32_t nanoseconds = 0;
};

// specdata4
struct CharDevSpec {
  std::uint32_t major = 0;
  std::uint32_t minor = 0;
};

// fsid4
struct FilesystemId {
  std::uint64_t major = 0;
  std::uint64_t minor = 0;
};

// stateid4
struct FsObjectStateId {
  std::uint32_t sequenceId = 0;
  FixedOpaque<12> other;

  bool operator==(const FsObjectStateId&) const = default;
};

// open_owner4, lock_owner4: state_owner4 of RFC 8881
struct StateOwner {
  static constexpr std::size_t kLongestName = 1024;  // NFS4_OPAQUE_LIMIT

  std::uint64_t clientId = 0;
  std::string name;

  auto operator<=>(const StateOwner&) const = default;
};

// LOCK4denied
struct LockDenied {
  std::uint64_t offset = 0;
  std::uint64_t length = 0;    // all ones: to the end, wherever that is
  std::uint32_t lockType = 0;  // nfs_lock_type4
  StateOwner owner;
};

// change_info4
struct ChangeInfo {
  bool atomic = false;
  std::uint64_t before = 0;
  std::uint64_t after = 0;
};

// client_owner4
struct ClientOwner {
  verifier4 verifier;
  std::string ownerId;
};

// server_owner4
struct ServerOwner {
  std::uint64_t minorId = 0;
  std::string majorId;
};

struct nfs_impl_id4 {
  std::string domain;
  std::string name;
  nfstime4 date;
};

// channel_attrs4
struct ChannelAttributes {
  std::uint32_t headerPadSize = 0;
  std::uint32_t maxRequestSize = 0;
  std::uint32_t maxResponseSize = 0;
  std::uint32_t maxResponseSizeCached = 0;
  std::uint32_t maxOperations = 0;
  std::uint32_t maxRequests = 0;
  std::uint32_t rdmaCount = 0;  // 0 or 1
  std::uint32_t rdma = 0;       // on the wire only when rdmaCount is not 0
};

struct state_protect_ops4 {
  std::vector<unsigned int> mustEnforce;
  std::vector<unsigned int> mustAllow;
};

struct ssv_sp_parms4 {
  state_protect_ops4 operations;
  std::vector<std::vector<std::byte>> hashAlgorithms;        // object identifiers
  std::vector<std::vector<std::byte>> encryptionAlgorithms;  // object identifiers
  std::uint32_t window = 0;
  std::uint32_t gssHandles = 0;
};

MemoryStream& operator>>(MemoryStream& in, nfstime4& value);
MemoryStream& operator>>(MemoryStream& in, CharDevSpec& value);
MemoryStream& operator>>(MemoryStream& in, FilesystemId& value);
MemoryStream& operator<<(MemoryStream& out, const FilesystemId& value);
// A counted opaque of exactly 16 bytes. Any other length marks the stream failed, takes nothing
// more and leaves the handle as it was.
MemoryStream& operator>>(MemoryStream& in, NfsHandle& value);
MemoryStream& operator<<(MemoryStream& out, const NfsHandle& value);
MemoryStream& operator>>(MemoryStream& in, FsObjectStateId& value);
MemoryStream& operator<<(MemoryStream& out, const FsObjectStateId& value);
// A name that is too long marks the stream failed.
MemoryStream& operator>>(MemoryStream& in, StateOwner& value);
MemoryStream& operator<<(MemoryStream& out, const StateOwner& value);
MemoryStream& operator<<(MemoryStream& out, const LockDenied& value);
MemoryStream& operator<<(MemoryStream& out, const ChangeInfo& value);
MemoryStream& operator>>(MemoryStream& in, ClientOwner& value);
MemoryStream& operator<<(MemoryStream& out, const ServerOwner& value);
MemoryStream& operator>>(MemoryStream& in, NfsAce4& value);
MemoryStream& operator<<(MemoryStream& out, const NfsAce4& value);
MemoryStream& operator>>(MemoryStream& in, std::vector<NfsAce4>& value);
MemoryStream& operator<<(MemoryStream& out, const std::vector<NfsAce4>& value);
MemoryStream& operator>>(MemoryStream& in, nfs_impl_id4& value);
MemoryStream& operator>>(MemoryStream& in, ChannelAttributes& value);
MemoryStream& operator<<(MemoryStream& out, const ChannelAttributes& value);
MemoryStream& operator>>(MemoryStream& in, state_protect_ops4& value);
MemoryStream& operator>>(MemoryStream& in, ssv_sp_parms4& value);

inline MemoryStream& operator<<(MemoryStream& out, nfs::OperationResult status) {
  return out << static_cast<unsigned>(status);
}

}  // namespace nfslib
