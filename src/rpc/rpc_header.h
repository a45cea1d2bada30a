#pragma once

#include "common/credential.h"
#include "common/memory_stream.h"

namespace nfslib::rpc {

// Program numbers that the system knows.
constexpr unsigned kPortmapProgram = 100'000;
constexpr unsigned kNfsProgram = 100'003;
constexpr unsigned kMountProgram = 100'005;

// RFC 5531 section 9.
constexpr unsigned kCall = 0;
constexpr unsigned kReply = 1;
constexpr unsigned kMessageAccepted = 0;
constexpr unsigned kMessageDenied = 1;
constexpr unsigned kRpcMismatch = 0;
constexpr unsigned kAuthError = 1;
constexpr unsigned kRpcVersion = 2;

enum class AcceptStatus : unsigned {
  Success = 0,
  ProgramUnavailable = 1,
  ProgramMismatch = 2,
  ProcedureUnavailable = 3,
  GarbageArguments = 4,
  SystemError = 5,
};

// The head of a call. Everything is zero until it is decoded.
struct RpcHeader {
  unsigned recordMark = 0;  // of the reply, on TCP
  unsigned xid = 0;
  unsigned messageType = 0;  // looked at in the modern profile, like the next
  unsigned rpcVersion = 0;
  unsigned program = 0;
  unsigned programVersion = 0;
  unsigned procedure = 0;
  AuthOpaque credentials;
  AuthOpaque verifier;  // flavor and length only
};

// Decodes the head up to the length of the verifier, whose body stays in the stream. A credential
// that RFC 5531 does not allow marks the stream failed.
MemoryStream& operator>>(MemoryStream& in, RpcHeader& header);

}  // namespace nfslib::rpc
