// One call with a good head and any arguments, through the RPC layer and its programs, in both
// profiles.
//
// The first byte chooses the program, the transport and the version of the port mapper, the second
// the procedure, the third the room for the reply; what follows are the arguments.

#include "check.h"
#include "common/memory_stream.h"
#include "rpc/rpc_header.h"
#include "served_tree.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

using namespace nfslib;

namespace {

constexpr std::size_t kChoices = 3;

void answer(const std::uint8_t* data, std::size_t size, const Profile& profile) {
  constexpr unsigned kDatagram = 65'507;
  constexpr std::array kPrograms{rpc::kNfsProgram, rpc::kMountProgram, rpc::kPortmapProgram};
  constexpr unsigned kXid = 0x1234'5678;
  const unsigned program = kPrograms[(data[0] >> 1U) % kPrograms.size()];
  const bool datagram = (data[0] & 1U) != 0;
  const unsigned lateVersion = profile.isModern && (data[0] & 0x80U) != 0 ? 4 : 2;
  const unsigned version = program == rpc::kPortmapProgram ? lateVersion : 3;

  fuzz::ServedTree tree(nfs::Nfs3Program::kVersion, profile);
  const auto arguments = tree.withHandles(data + kChoices, size - kChoices);
  MemoryStream call;
  call << kXid << 0U << 2U << program << version << unsigned{data[1]};
  call << unsigned{rpc::AUTH_SYS} << 20U << 0U << 0U << 0U << 0U << 0U;  // uid 0, no machine name
  call << unsigned{rpc::AUTH_NONE} << 0U;
  call.write(arguments.data(), static_cast<unsigned>(arguments.size()));

  MemoryStream stream;
  if (datagram) stream.limitOutput(kDatagram);
  // Room for every result of a fixed size: no datagram is shorter.
  if (data[2] != 0) stream.limitOutput(512U * data[2]);
  stream.setInputData(call.getOutputBuffer());
  auto result = rpc::RpcProgramResult::GarbageArguments;
  try {
    result = datagram ? tree.server().ProcessRpcRequestOverUdp(stream)
                      : tree.server().ProcessRpcRequestOverTcp(stream);
  } catch (const std::runtime_error&) {
    FUZZ_CHECK(!profile.isModern);
    return;  // no such export: the transport ends the request there
  }

  MemoryStream reply;
  reply.setInputData(stream.getOutputBuffer());
  FUZZ_CHECK(stream.getOutputDataSize() <= stream.outputLimit());
  unsigned mark = 0, xid = 0, kind = 0, denied = 0, flavor = 0, length = 0, status = 0;
  if (!datagram) {
    reply >> mark;
    FUZZ_CHECK(mark == (0x80000000U | reply.getInputDataSize()));
  }
  reply >> xid >> kind >> denied >> flavor >> length >> status;
  FUZZ_CHECK(static_cast<bool>(reply));
  FUZZ_CHECK(xid == kXid && kind == rpc::kReply && denied == rpc::kMessageAccepted && length == 0);
  FUZZ_CHECK(reply.getInputDataSize() % 4 == 0);
  switch (static_cast<rpc::AcceptStatus>(status)) {
    case rpc::AcceptStatus::Success:
      FUZZ_CHECK(result == rpc::RpcProgramResult::Success);
      break;
    case rpc::AcceptStatus::ProcedureUnavailable:
      FUZZ_CHECK(result == rpc::RpcProgramResult::ProcedureUnavailable);
      FUZZ_CHECK(reply.getInputDataSize() == 0);
      break;
    case rpc::AcceptStatus::GarbageArguments:
      FUZZ_CHECK(result == rpc::RpcProgramResult::GarbageArguments);
      FUZZ_CHECK(reply.getInputDataSize() == 0);
      break;
    case rpc::AcceptStatus::ProgramUnavailable:
    case rpc::AcceptStatus::ProgramMismatch:
      FUZZ_CHECK(false);  // all three are registered, in these versions
      break;
    case rpc::AcceptStatus::SystemError:
      FUZZ_CHECK(false);  // a program answers whatever its tree throws
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kChoices) return 0;
  for (const bool isModern : {false, true}) answer(data, size, {.isModern = isModern});
  return 0;
}
