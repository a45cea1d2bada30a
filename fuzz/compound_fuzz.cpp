// A few COMPOUNDs of version 4, one after the other on one server, so that clients, sessions and
// open files of one are there for the next.
//
// The input is any number of them, each behind its length in two bytes.

#include "check.h"
#include "common/memory_stream.h"
#include "rpc/rpc_header.h"
#include "served_tree.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

using namespace nfslib;

namespace {

constexpr unsigned kXid = 0x1234'5678;

void check(const MemoryStream& stream, rpc::RpcProgramResult result) {
  MemoryStream reply;
  reply.setInputData(stream.getOutputBuffer());
  unsigned mark = 0, xid = 0, kind = 0, denied = 0, flavor = 0, length = 0, accepted = 0;
  reply >> mark;
  FUZZ_CHECK(mark == (0x80000000U | reply.getInputDataSize()));
  reply >> xid >> kind >> denied >> flavor >> length >> accepted;
  FUZZ_CHECK(xid == kXid && kind == rpc::kReply && denied == rpc::kMessageAccepted);
  FUZZ_CHECK(accepted == 0 && result == rpc::RpcProgramResult::Success);
  // Status, tag and number of results, whatever happened.
  unsigned status = 0, count = 0;
  std::string tag;
  reply >> status >> tag >> count;
  FUZZ_CHECK(static_cast<bool>(reply));
  FUZZ_CHECK(count <= reply.getInputDataSize() / 8);  // a number and a status each
  FUZZ_CHECK(reply.getInputDataSize() % 4 == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ServedTree tree(4);
  while (size > 2) {
    const std::size_t length = std::min<std::size_t>(data[0] * 256U + data[1], size - 2);
    const auto arguments = tree.withHandles(data + 2, length);
    data += 2 + length;
    size -= 2 + length;

    MemoryStream call;
    call << kXid << 0U << 2U << unsigned{rpc::kNfsProgram} << 4U << 1U;
    call << unsigned{rpc::AUTH_SYS} << 20U << 0U << 0U << 0U << 0U << 0U;  // uid 0, no machine name
    call << unsigned{rpc::AUTH_NONE} << 0U;
    call.write(arguments.data(), static_cast<unsigned>(arguments.size()));
    MemoryStream stream;
    stream.setInputData(call.getOutputBuffer());
    const auto result = tree.server().ProcessRpcRequestOverTcp(stream);
    check(stream, result);
  }
  return 0;
}
