// A few COMPOUNDs of version 4, one after the other on one server, so that clients, sessions and
// open files of one are there for the next.
//
// An input that has a value of theirs is for the modern profile: its clients and stateids cannot be
// guessed, so a client of each minor version has a file open and a lock in it.
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

MemoryStream send(fuzz::ServedTree& tree, const void* arguments, std::size_t size) {
  MemoryStream call;
  call << kXid << 0U << 2U << unsigned{rpc::kNfsProgram} << 4U << 1U;
  call << unsigned{rpc::AUTH_SYS} << 20U << 0U << 0U << 0U << 0U << 0U;  // uid 0, no machine name
  call << unsigned{rpc::AUTH_NONE} << 0U;
  call.write(arguments, static_cast<unsigned>(size));
  MemoryStream stream;
  stream.setInputData(call.getOutputBuffer());
  const auto result = tree.server().ProcessRpcRequestOverTcp(stream);
  check(stream, result);
  return stream;
}

// One that has to succeed.
class Compound {
 public:
  Compound(fuzz::ServedTree& tree, unsigned minorVersion) : m_tree(tree) {
    m_minorVersion = minorVersion;
  }
  template <class... Arguments>
  Compound& add(unsigned operation, const Arguments&... arguments) {
    m_operations << operation;
    (m_operations << ... << arguments);
    ++m_count;
    return *this;
  }
  // The values are at the beginning of the result of the last operation, which has `size` bytes.
  template <class... Values>
  void runForLast(unsigned size, Values&... values) {
    MemoryStream reply = run();
    reply.skipInput(reply.getInputDataSize() - size);
    static_cast<void>((reply >> ... >> values));
  }
  // They are at the beginning of the result of the first one.
  template <class... Values>
  void runForFirst(Values&... values) {
    MemoryStream reply = run();
    static_cast<void>((reply >> ... >> values));
  }

 private:
  MemoryStream run() {
    MemoryStream call;
    call << std::string() << m_minorVersion << m_count;
    const auto operations = m_operations.getOutputBuffer();
    call.write(operations.data(), static_cast<unsigned>(operations.size()));
    const auto arguments = call.getOutputBuffer();
    const MemoryStream answer = send(m_tree, arguments.data(), arguments.size());
    MemoryStream reply;
    reply.setInputData(answer.getOutputBuffer());
    reply.skipInput(kReplyHead);
    unsigned status = ~0U;
    reply >> status;
    FUZZ_CHECK(status == 0);
    reply.skipInput(4 * 4);  // an empty tag, the number of results; the operation, its status
    return reply;
  }

  static constexpr unsigned kReplyHead = 7 * 4;  // with its record mark
  fuzz::ServedTree& m_tree;
  unsigned m_minorVersion;
  unsigned m_count = 0;
  MemoryStream m_operations;
};

constexpr unsigned kLock = 12, kOpen = 18, kOpenConfirm = 20, kPutFh = 22, kSetClientId = 35,
                   kSetClientIdConfirm = 36, kExchangeId = 42, kCreateSession = 43, kSequence = 53;
constexpr unsigned kReadAndWrite = 3, kWriteLock = 2, kByHandle = 4;
constexpr std::uint64_t kVerifier = 1, kNothing = 0, kTen = 10;
const std::string kOwner = "owner";

// Values 0 to 6: the client id of minor version 0 and half an owner's name, the stateids of its
// open and its lock, the session of minor version 1 and its client id with the name, the stateids
// of its open and its lock.
void addClients(fuzz::ServedTree& tree) {
  std::uint64_t client = 0, confirmation = 0;
  FsObjectStateId open, lock;
  Compound(tree, 0)
      .add(kSetClientId, kVerifier, kOwner, 0U, kOwner, kOwner, 0U)
      .runForFirst(client, confirmation);
  Compound(tree, 0).add(kSetClientIdConfirm, client, confirmation).runForFirst();
  // Behind the stateid: change_info4, flags, an empty bitmap, no delegation.
  constexpr unsigned kStateId = 16, kOpened = kStateId + 20 + 4 + 4 + 4;
  const NfsHandle file = tree.file();
  Compound(tree, 0)
      .add(kPutFh, file)
      .add(kOpen, 0U, kReadAndWrite, 0U, client, kOwner, 0U, kByHandle)
      .runForLast(kOpened, open);
  Compound(tree, 0).add(kPutFh, file).add(kOpenConfirm, open, 1U).runForLast(kStateId, open);
  Compound(tree, 0)
      .add(kPutFh, file)
      .add(kLock, kWriteLock, false, kNothing, kTen, true, 2U, open, 0U, client, kOwner)
      .runForLast(kStateId, lock);
  tree.addValue(client, kOwner);
  tree.addValue(open);
  tree.addValue(lock);

  sessionid session;
  const ChannelAttributes channel{0, 1U << 20U, 1U << 20U, 4096, 16, 8, 0, 0};
  Compound(tree, 1).add(kExchangeId, kVerifier, kOwner, 0U, 0U, 0U).runForFirst(client);
  Compound(tree, 1)
      .add(kCreateSession, client, 1U, 0U, channel, channel, 0U, 1U, 0U)
      .runForFirst(session);
  Compound(tree, 1)
      .add(kSequence, session, 1U, 0U, 0U, false)
      .add(kPutFh, file)
      .add(kOpen, 0U, kReadAndWrite, 0U, client, kOwner, 0U, kByHandle)
      .runForLast(kOpened, open);
  Compound(tree, 1)
      .add(kSequence, session, 2U, 0U, 0U, false)
      .add(kPutFh, file)
      .add(kLock, kWriteLock, false, kTen, kTen, true, 0U, open, 0U, client, kOwner)
      .runForLast(kStateId, lock);
  tree.addValue(session);
  tree.addValue(client, kOwner);
  tree.addValue(open);
  tree.addValue(lock);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const bool isModern = fuzz::ServedTree::hasValue(data, size);
  fuzz::ServedTree tree(4, profileOf(isModern ? NfsServerPolicy::modern() : NfsServerPolicy{}));
  if (isModern) addClients(tree);
  while (size > 2) {
    const std::size_t length = std::min<std::size_t>(data[0] * 256U + data[1], size - 2);
    const auto arguments = tree.withHandles(data + 2, length);
    data += 2 + length;
    size -= 2 + length;
    send(tree, arguments.data(), arguments.size());
  }
  return 0;
}
