#pragma once

#include "nfs4/attributes.h"
#include "nfs4/nfs4_program.h"
#include "nfs4/session.h"
#include "nfs4/state_table.h"
#include "support/nfs3_fixture.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace nfslib::testing {

using namespace std::string_literals;
using nfs4::Bitmap;

// Operations by number, RFC 7530 section 13.1 and RFC 5661 section 17.
namespace op {
constexpr unsigned kAccess = 3, kClose = 4, kCreate = 6, kGetAttr = 9, kGetFh = 10, kLink = 11,
                   kLock = 12, kLockT = 13, kLockU = 14, kLookup = 15, kLookupP = 16, kNVerify = 17,
                   kOpen = 18, kPutFh = 22, kPutRootFh = 24, kRead = 25, kReadDir = 26,
                   kReadLink = 27, kRemove = 28, kRename = 29, kRestoreFh = 31, kSaveFh = 32,
                   kSetAttr = 34, kSetClientId = 35, kSetClientIdConfirm = 36, kVerify = 37,
                   kWrite = 38, kExchangeId = 42, kCreateSession = 43, kDestroySession = 44,
                   kSequence = 53, kDestroyClientId = 57, kReclaimComplete = 58;
}  // namespace op

// Statuses, RFC 7530 section 13 and RFC 5661 section 15.
constexpr unsigned kDenied = 10010, kIo = 5, kExists = 17, kNotDirectory = 20, kIsDirectory = 21,
                   kInvalid = 22, kNoSpace = 28, kReadOnly = 30, kTooLong = 63, kNotEmpty = 66,
                   kBadHandle = 10001, kTooSmall = 10005, kServerFault = 10006, kBadType = 10007,
                   kSame = 10009, kInUse = 10017, kNoFileHandle = 10020, kStaleClient = 10022,
                   kResource = 10018, kNotSame = 10027, kIsLink = 10029, kUnsupported = 10032,
                   kBadXdr = 10036, kBadSession = 10052, kBadSlot = 10053, kMisordered = 10063,
                   kRequestTooBig = 10065, kReplyTooBig = 10066, kReplyTooBigToCache = 10067,
                   kTooManyOperations = 10070, kClientBusy = 10074, kWrongType = 10083;

// Words that are encoded already.
struct Raw {
  std::string words;
  friend MemoryStream& operator<<(MemoryStream& out, const Raw& raw) {
    const auto bytes = unhex(raw.words);
    out.write(bytes.data(), static_cast<unsigned>(bytes.size()));
    return out;
  }
};
template <class... Values>
Raw raw(const Values&... values) {
  return {wire(values...)};
}
// fattr4
template <class... Values>
Raw fattr4(const Bitmap& bitmap, const Values&... values) {
  return raw(bitmap, unhex(wire(values...)));
}
inline const Raw kNoAttributes = fattr4({});
inline const FsObjectStateId kNoState;
inline const Bitmap kSize{1U << 4U};

// ---- The arguments of OPEN

inline const Raw kNoCreate = raw(0U);
inline Raw unchecked(const Raw& attributes = kNoAttributes) { return raw(1U, 0U, attributes); }
inline Raw guarded(const Raw& attributes = kNoAttributes) { return raw(1U, 1U, attributes); }
inline Raw exclusive(std::uint64_t verifier) { return raw(1U, 2U, verifier); }
inline Raw byName(const std::string& name) { return raw(0U, name); }
inline const Raw kByHandle = raw(4U);

// Operations in their order, with arguments.
struct Compound {
  std::string operations;
  unsigned count = 0;

  template <class... Arguments>
  Compound& add(unsigned operation, const Arguments&... arguments) {
    (operations += ' ') += wire(operation, arguments...);
    ++count;
    return *this;
  }
  Compound& add(const Compound& other) {
    operations += other.operations;
    count += other.count;
    return *this;
  }
  Compound& put(const NfsHandle& handle) { return add(op::kPutFh, handle); }
  Compound& lookup(const std::string& name) { return add(op::kLookup, name); }
  Compound& getAttr(const Bitmap& bitmap) { return add(op::kGetAttr, bitmap); }
  Compound& open(const Raw& how, const Raw& claim, const std::string& owner = "owner",
                 std::uint64_t client = 0) {
    return add(op::kOpen, 0U, 1U, 0U, client, owner, how, claim);
  }
  Compound& close() { return add(op::kClose, 0U, kNoState); }
  Compound& read(std::uint64_t offset = 0, unsigned length = 1000) {
    return add(op::kRead, kNoState, offset, length);
  }
  Compound& write(std::uint64_t offset, const std::string& data) {
    return add(op::kWrite, kNoState, offset, 2U, data);
  }
};

struct OperationAnswer {
  unsigned operation = 0;
  unsigned status = 0;
  std::vector<std::byte> bytes;  // behind the status

  std::string body() const { return hex({bytes.data(), bytes.size()}); }
};

// COMPOUND4res, taken apart.
struct Answer {
  unsigned status = 0;
  std::string tag;
  std::vector<OperationAnswer> results;
  unsigned inputLeft = 0;
  std::string whole;  // as it came

  std::vector<unsigned> statuses() const {
    std::vector<unsigned> all;
    for (const auto& result : results) all.push_back(result.status);
    return all;
  }
  // Of the last operation.
  std::string body() const { return results.empty() ? "none" : results.back().body(); }
};

// Moves `in` behind the result that an operation has on success.
inline void skipResult(MemoryStream& in, unsigned operation) {
  static const std::map<unsigned, unsigned> kFixedSizes{
      {op::kAccess, 8},  {op::kClose, 16},       {op::kLink, 20},  {op::kRemove, 20},
      {op::kRename, 40}, {op::kSetClientId, 16}, {op::kWrite, 16}, {op::kSequence, 36},
      {op::kLock, 16},   {op::kLockU, 16},
  };
  const auto skip = [&](unsigned bytes) {
    if (in.skipInput(bytes) != bytes) in.errorOccurred();
  };
  const auto skipOpaque = [&] { in.readOpaque(); };
  Bitmap bitmap;
  bool follows = false;
  if (const auto fixed = kFixedSizes.find(operation); fixed != kFixedSizes.end()) {
    return skip(fixed->second);
  }
  switch (operation) {
    case op::kGetFh:
    case op::kReadLink:
      return skipOpaque();
    case op::kRead:
      skip(4);
      return skipOpaque();
    case op::kGetAttr:
      in >> bitmap;
      return skipOpaque();
    case op::kSetAttr:
      in >> bitmap;
      return;
    case op::kCreate:
      skip(20);
      in >> bitmap;
      return;
    case op::kOpen:
      skip(16 + 20 + 4);
      in >> bitmap;
      return skip(4);
    case op::kReadDir:
      skip(8);
      for (in >> follows; follows && in; in >> follows) {
        skip(8);
        skipOpaque();
        in >> bitmap;
        skipOpaque();
      }
      return skip(4);
    case op::kExchangeId:
      skip(8 + 4 + 4 + 4 + 8);
      skipOpaque();
      skipOpaque();
      return skip(4);
    case 20:  // OPEN_CONFIRM
    case 21:  // OPEN_DOWNGRADE
      return skip(16);
    case 5:   // COMMIT
    case 33:  // SECINFO
    case 52:  // SECINFO_NO_NAME
      return skip(8);
    case 41:  // BIND_CONN_TO_SESSION
      return skip(24);
    case 55:  // TEST_STATEID
      return skip(4 * in.readCount(4));
    case op::kCreateSession:
      return skip(16 + 4 + 4 + 28 + 28);
    default:
      return;
  }
}

// What a client of minor version 1 keeps of its session.
struct ClientSession {
  sessionid id;
  unsigned slot = 0;
  unsigned sequenceId = 0;
  bool cached = false;
};

constexpr ChannelAttributes kChannel{0, 2U << 20U, 2U << 20U, 1U << 20U, 64, 64, 0, 0};

// A tree that is served in version 4 (and in version 3, past which the caches are shared).
class Nfs4Test : public Nfs3Test {
 protected:
  using Nfs3Test::Nfs3Test;

  // The default session is the process's.
  void SetUp() override {
    auto& session = *Nfs4Session::getDefaultSession();
    session.getCurrentFileSystemObject() = {};
    session.getSavedFileSystemObject() = {};
  }
  void TearDown() override {
    const auto now = std::chrono::steady_clock::now();
    for (std::uint32_t number = 1; number < 5; ++number) service.releaseObjects(number, now);
  }

  void serve(bool writable = false) {
    Nfs3Test::serve(writable);
    server4.registerProgram(kProgram, std::make_unique<nfs::Nfs4Program>(service, writable));
    if (minorVersion == 1) own = makeSession("client");
    log.takeLines();
  }

  // ---- COMPOUNDs

  // As it stands, whatever it begins with.
  Answer send4(unsigned minor, const Compound& compound, const std::string& tag = "tag") const {
    const Reply reply = caller4(1, wire(tag, minor, compound.count) + " " + compound.operations);
    EXPECT_EQ(reply.acceptStatus, kAccepted);
    return taken(reply);
  }
  // In a session. The result of SEQUENCE is left out when it is a success.
  Answer run(ClientSession& in, const Compound& compound) const {
    Compound whole;
    whole.add(op::kSequence, in.id, ++in.sequenceId, in.slot, in.slot, in.cached).add(compound);
    Answer answer = send4(1, whole);
    if (!answer.results.empty() && answer.results[0].status == kOk) {
      EXPECT_EQ(answer.results[0].operation, op::kSequence);
      answer.results.erase(answer.results.begin());
    }
    return answer;
  }
  // In the minor version of the test.
  Answer run(const Compound& compound) {
    return minorVersion == 0 ? send4(0, compound) : run(own, compound);
  }
  std::vector<unsigned> statuses(const Compound& compound) { return run(compound).statuses(); }
  unsigned status(const Compound& compound) { return run(compound).status; }

  // A reply taken apart; everything of it has to have its place.
  static Answer taken(const Reply& reply) {
    Answer answer;
    answer.inputLeft = reply.inputLeft;
    answer.whole = reply.body();
    MemoryStream in;
    in.setInputData({reply.results.data(), reply.results.size()});
    unsigned count = 0;
    in >> answer.status >> answer.tag >> count;
    for (unsigned i = 0; i < count && in; ++i) {
      OperationAnswer& result = answer.results.emplace_back();
      in >> result.operation >> result.status;
      const auto start = reply.results.end() - in.getInputDataSize();
      if (result.status == kOk || result.operation == op::kSetAttr) {
        skipResult(in, result.operation);
      } else if (result.operation == op::kSetClientId && result.status == kInUse) {
        in.readOpaque();  // clientaddr4
        in.readOpaque();
      } else if (result.status == kDenied) {
        in.skipInput(28);
        in.readOpaque();
      }
      result.bytes.assign(start, reply.results.end() - in.getInputDataSize());
    }
    EXPECT_TRUE(in) << "a reply of " << reply.results.size() << " bytes is cut off";
    EXPECT_EQ(in.getInputDataSize(), 0U) << "bytes behind the last result";
    return answer;
  }

  // ---- Clients

  static Raw exchangeArguments(std::uint64_t verifier, const std::string& owner, unsigned flags) {
    return raw(verifier, owner, flags, 0U, 0U);
  }
  std::uint64_t exchangeId(std::uint64_t verifier, const std::string& owner) const {
    const Answer answer =
        send4(1, Compound().add(op::kExchangeId, exchangeArguments(verifier, owner, 0)));
    EXPECT_EQ(answer.status, kOk);
    return numberAt(answer, 0);
  }
  std::uint64_t setClientId(const std::string& owner) const {
    const Answer answer =
        send4(0, Compound().add(op::kSetClientId, std::uint64_t{7}, owner, 1U, ""s, ""s, 2U));
    EXPECT_EQ(answer.status, kOk);
    const std::uint64_t client = numberAt(answer, 0);
    const Compound confirming =
        Compound().add(op::kSetClientIdConfirm, client, numberAt(answer, 8));
    EXPECT_EQ(send4(0, confirming).status, kOk);
    return client;
  }
  static Raw sessionArguments(std::uint64_t client, unsigned sequenceId,
                              const ChannelAttributes& fore = kChannel) {
    return raw(client, sequenceId, 3U, fore, kChannel, 0x4000'0000U, 1U, 0U);
  }
  ClientSession makeSession(const std::string& owner, const ChannelAttributes& fore = kChannel) {
    const Answer known = send4(1, Compound().add(op::kExchangeId, exchangeArguments(7, owner, 0)));
    const auto sequenceId = static_cast<unsigned>(numberAt(known, 8) >> 32U);
    const Answer answer = send4(
        1,
        Compound().add(op::kCreateSession, sessionArguments(numberAt(known, 0), sequenceId, fore)));
    EXPECT_EQ(answer.status, kOk);
    return {idIn(answer)};
  }
  static sessionid idIn(const Answer& answer) {
    sessionid id;
    const auto& bytes = answer.results.at(0).bytes;
    std::copy_n(bytes.begin(), std::min(bytes.size(), id.bytes.size()), id.bytes.begin());
    return id;
  }
  // The 64 bits at a place of the last result.
  static std::uint64_t numberAt(const Answer& answer, std::size_t place) {
    const auto& bytes = answer.results.at(answer.results.size() - 1).bytes;
    std::uint64_t value = 0;
    for (std::size_t i = place; i < place + 8; ++i) {
      value = value << 8U | std::to_integer<std::uint64_t>(bytes.at(i));
    }
    return value;
  }
  // The 16 bytes at the beginning of the last result.
  static FsObjectStateId stateIdIn(const Answer& answer) {
    MemoryStream in;
    const auto& bytes = answer.results.at(answer.results.size() - 1).bytes;
    in.setInputData({bytes.data(), bytes.size()});
    FsObjectStateId id;
    in >> id;
    return id;
  }

  // ---- The tree

  Compound at(const std::string& path) { return Compound().put(handleOf(path)); }
  std::string contentOf(const std::string& path) {
    std::string content(attributes(path).size, '\0');
    parentOf(path)->OpenFile(NfsPath(path).getFileName())->Read(0, content.data(), content.size());
    return content;
  }
  // The result of a GETATTR of the size.
  static std::string sizeIs(std::uint64_t size) { return wire(fattr4(kSize, size)); }

  unsigned minorVersion = 0;
  rpc::RpcServer server4;
  StreamCaller caller4{server4, kProgram, nfs::Nfs4Program::kVersion};
  ClientSession own;  // session of minor version 1
};

// For what has to be the same in both minor versions.
class BothVersionsTest : public Nfs4Test, public ::testing::WithParamInterface<unsigned> {
 protected:
  explicit BothVersionsTest(std::uint64_t capacity = 256U << 20U) : Nfs4Test(capacity) {
    minorVersion = GetParam();
  }
};

inline std::string minorVersionName(const ::testing::TestParamInfo<unsigned>& info) {
  return "Minor" + std::to_string(info.param);
}

}  // namespace nfslib::testing
