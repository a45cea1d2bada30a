#pragma once

#include "common/credential.h"
#include "common/memory_stream.h"
#include "common/xdr_records.h"
#include "rpc/rpc_server.h"
#include "support/hex.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace nfslib::testing {

// What came of a call, taken apart.
struct Reply {
  unsigned acceptStatus = 0;  // RFC 5531 section 9
  std::vector<std::byte> results;
  unsigned size = 0;       // of the whole reply with its record mark
  unsigned inputLeft = 0;  // bytes of the call that nobody took

  std::string body() const { return hex({results.data(), results.size()}); }
};

// A successful reply with these results.
constexpr unsigned kAccepted = 0;
constexpr unsigned kProcedureUnavailable = 3;
constexpr unsigned kGarbageArguments = 4;

// The arguments or results as they are sent.
template <class... Values>
std::string wire(const Values&... values) {
  MemoryStream out;
  ((out << values), ...);
  return hex(out.getOutputBuffer());
}

// Sends calls of one program through a server, each over a stream of its own, as a TCP connection
// would.
struct StreamCaller {
  rpc::RpcServer& server;
  unsigned program = 0;
  unsigned version = 0;
  rpc::AuthOpaque caller{};  // sent as AUTH_SYS
  unsigned outputLimit = MemoryStream::getBufferSize();

  Reply operator()(unsigned procedure, const std::string& arguments) const {
    constexpr unsigned kXid = 0x1234'5678;
    constexpr unsigned kCall = 0;
    constexpr unsigned kRpcVersion = 2;

    MemoryStream body;  // of the credential: stamp, machine name, ids
    const std::vector<unsigned> groups(
        caller.groups.begin(),
        caller.groups.begin() + std::min(caller.groupCount, rpc::AuthOpaque::kMaxSentGroups));
    body << caller.stamp << std::string("host") << caller.uid << caller.gid << groups;

    MemoryStream call;
    const auto argumentBytes = unhex(arguments);
    call << kXid << kCall << kRpcVersion << program << version << procedure
         << unsigned{rpc::AUTH_SYS} << body.getOutputBuffer() << unsigned{rpc::AUTH_NONE} << 0U;
    call.write(argumentBytes.data(), static_cast<unsigned>(argumentBytes.size()));

    MemoryStream stream;
    stream.limitOutput(outputLimit);
    stream.setInputData(call.getOutputBuffer());
    server.ProcessRpcRequestOverTcp(stream);

    // Mark, xid, REPLY, MSG_ACCEPTED, an empty verifier, then the accept status.
    constexpr std::size_t kHead = 28;
    const memory::const_buffer bytes = stream.getOutputBuffer();
    Reply reply;
    reply.size = static_cast<unsigned>(bytes.size());
    reply.inputLeft = stream.getInputDataSize();
    MemoryStream head;
    head.setInputData({bytes, kHead});
    head.skipInput(kHead - 4);
    head >> reply.acceptStatus;
    memory::const_buffer results = bytes;
    results += kHead;
    reply.results.assign(results.begin(), results.end());
    return reply;
  }
};

}  // namespace nfslib::testing
