#include "rpc/rpc_header.h"

#include <algorithm>

namespace nfslib::rpc {

namespace {

constexpr unsigned kMaxAuthBody = 400;  // RFC 5531 section 8.2

void readSysCredential(MemoryStream& in, AuthOpaque& credential) {
  in >> credential.stamp;
  in.readString({credential.machineName.data(), AuthOpaque::kMaxMachineName});
  if (!in) return;  // what follows a name that is no name are no ids
  in >> credential.uid >> credential.gid;
  credential.groupCount = in.readCount(sizeof(unsigned));
  if (credential.groupCount > AuthOpaque::kMaxSentGroups) {
    credential.groupCount = 0;
    in.errorOccurred();
  }
  for (unsigned i = 0; i < credential.groupCount; ++i) {
    unsigned group = 0;
    in >> group;
    credential.groups[i] = group;
  }
}

// The body lies between its length and the verifier. A credential that says more, or less, than its
// length is garbage or padding: what follows is found by the length alone.
void readCredential(MemoryStream& in, AuthOpaque& credential) {
  in >> credential.flavor >> credential.length;
  const unsigned start = in.getInputDataSize();
  if (credential.length > std::min(kMaxAuthBody, start)) {
    in.errorOccurred();
    return;
  }
  if (credential.flavor == AUTH_SYS) readSysCredential(in, credential);
  const unsigned used = start - in.getInputDataSize();
  if (used > credential.length) {
    in.errorOccurred();
    return;
  }
  in.skipInput(credential.length - used);
  in.skipOpaqueTail(credential.length);
}

}  // namespace

MemoryStream& operator>>(MemoryStream& in, RpcHeader& header) {
  in >> header.xid >> header.messageType >> header.rpcVersion >> header.program >>
      header.programVersion >> header.procedure;
  readCredential(in, header.credentials);
  return in >> header.verifier.flavor >> header.verifier.length;
}

}  // namespace nfslib::rpc
