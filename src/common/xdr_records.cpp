#include "common/xdr_records.h"

namespace nfslib {

namespace {

// The least that an element takes on the wire: what bounds a count before anything is allocated.
constexpr unsigned kSmallestAce = 16;    // three words and an empty string
constexpr unsigned kSmallestOpaque = 4;  // an empty opaque

MemoryStream& readObjectIds(MemoryStream& in, std::vector<std::vector<std::byte>>& ids) {
  ids.assign(in.readCount(kSmallestOpaque), {});
  for (auto& id : ids) in >> id;
  return in;
}

}  // namespace

MemoryStream& operator>>(MemoryStream& in, nfstime4& value) {
  return in >> value.seconds >> value.nanoseconds;
}

MemoryStream& operator>>(MemoryStream& in, CharDevSpec& value) {
  return in >> value.major >> value.minor;
}

MemoryStream& operator>>(MemoryStream& in, FilesystemId& value) {
  return in >> value.major >> value.minor;
}
MemoryStream& operator<<(MemoryStream& out, const FilesystemId& value) {
  return out << value.major << value.minor;
}

MemoryStream& operator>>(MemoryStream& in, NfsHandle& value) {
  unsigned length = 0;
  in >> length;
  if (length != sizeof(NfsHandle) || in.getInputDataSize() < sizeof(NfsHandle)) {
    in.errorOccurred();
    return in;
  }
  in.read(&value, sizeof(NfsHandle));
  return in;
}
MemoryStream& operator<<(MemoryStream& out, const NfsHandle& value) {
  return out << memory::const_buffer(&value, sizeof value);
}

MemoryStream& operator>>(MemoryStream& in, FsObjectStateId& value) {
  return in >> value.sequenceId >> value.other;
}
MemoryStream& operator<<(MemoryStream& out, const FsObjectStateId& value) {
  return out << value.sequenceId << value.other;
}

MemoryStream& operator>>(MemoryStream& in, StateOwner& value) {
  in >> value.clientId >> value.name;
  if (value.name.size() > StateOwner::kLongestName) in.errorOccurred();
  return in;
}
MemoryStream& operator<<(MemoryStream& out, const StateOwner& value) {
  return out << value.clientId << value.name;
}

MemoryStream& operator<<(MemoryStream& out, const LockDenied& value) {
  return out << value.offset << value.length << value.lockType << value.owner;
}

MemoryStream& operator<<(MemoryStream& out, const ChangeInfo& value) {
  return out << value.atomic << value.before << value.after;
}

MemoryStream& operator>>(MemoryStream& in, ClientOwner& value) {
  return in >> value.verifier >> value.ownerId;
}

MemoryStream& operator<<(MemoryStream& out, const ServerOwner& value) {
  return out << value.minorId << value.majorId;
}

MemoryStream& operator>>(MemoryStream& in, NfsAce4& value) {
  return in >> value.type >> value.flag >> value.accessMask >> value.who;
}
MemoryStream& operator<<(MemoryStream& out, const NfsAce4& value) {
  return out << value.type << value.flag << value.accessMask << value.who;
}

MemoryStream& operator>>(MemoryStream& in, std::vector<NfsAce4>& value) {
  value.assign(in.readCount(kSmallestAce), {});
  for (NfsAce4& ace : value) in >> ace;
  return in;
}
MemoryStream& operator<<(MemoryStream& out, const std::vector<NfsAce4>& value) {
  out << static_cast<unsigned>(value.size());
  for (const NfsAce4& ace : value) out << ace;
  return out;
}

MemoryStream& operator>>(MemoryStream& in, nfs_impl_id4& value) {
  return in >> value.domain >> value.name >> value.date;
}

MemoryStream& operator>>(MemoryStream& in, ChannelAttributes& value) {
  in >> value.headerPadSize >> value.maxRequestSize >> value.maxResponseSize >>
      value.maxResponseSizeCached >> value.maxOperations >> value.maxRequests >> value.rdmaCount;
  if (value.rdmaCount != 0) in >> value.rdma;
  return in;
}
MemoryStream& operator<<(MemoryStream& out, const ChannelAttributes& value) {
  out << value.headerPadSize << value.maxRequestSize << value.maxResponseSize
      << value.maxResponseSizeCached << value.maxOperations << value.maxRequests << value.rdmaCount;
  if (value.rdmaCount != 0) out << value.rdma;
  return out;
}

MemoryStream& operator>>(MemoryStream& in, state_protect_ops4& value) {
  return in >> value.mustEnforce >> value.mustAllow;
}

MemoryStream& operator>>(MemoryStream& in, ssv_sp_parms4& value) {
  in >> value.operations;
  readObjectIds(in, value.hashAlgorithms);
  readObjectIds(in, value.encryptionAlgorithms);
  return in >> value.window >> value.gssHandles;
}

}  // namespace nfslib
