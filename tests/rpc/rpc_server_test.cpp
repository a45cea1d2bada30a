#include "rpc/rpc_server.h"

#include "support/hex.h"
#include "support/recorded_log.h"

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using rpc::RpcProgramResult;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Answers with one word and keeps what it was told.
class Program : public rpc::RpcProgram {
 public:
  struct Seen {
    rpc::RpcProgramParameters parameters;
    rpc::AuthOpaque caller;
  };
  Program(Seen& seen, std::function<RpcProgramResult(MemoryStream&)> body)
      : m_seen(seen), m_body(std::move(body)) {}
  RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                       const rpc::AuthOpaque& caller) override {
    m_seen = {parameters, caller};
    return m_body(stream);
  }

 private:
  Seen& m_seen;
  std::function<RpcProgramResult(MemoryStream&)> m_body;
};

const std::string kNone = "00000000 00000000";

std::string word(unsigned value) {
  MemoryStream out;
  out << value;
  return hex(out.getOutputBuffer());
}

// An AUTH_SYS credential: stamp 7, a machine name, ids and groups; its length is right.
std::string sys(unsigned uid, unsigned gid, const std::vector<unsigned>& groups = {},
                const std::string& machine = "host") {
  MemoryStream body;
  body << 7U << machine << uid << gid << groups;
  MemoryStream credential;
  credential << 1U << body.getOutputBuffer();
  return hex(credential.getOutputBuffer());
}

class RpcServerTest : public ::testing::Test {
 protected:
  void serve(unsigned number, std::function<RpcProgramResult(MemoryStream&)> body) {
    server.registerProgram(number, std::make_unique<Program>(seen, std::move(body)));
  }
  void serve(unsigned number) {
    serve(number, [](MemoryStream& stream) {
      stream << 0xCAFEU;
      return RpcProgramResult::Success;
    });
  }
  // The reply without a record mark, in hexadecimal.
  std::string call(unsigned program, unsigned procedure, const std::string& credential = kNone,
                   const std::string& verifier = kNone) {
    MemoryStream stream;
    setInput(stream, "0000002a 00000000 00000002 " + word(program) + " 00000003 " +
                         word(procedure) + " " + credential + " " + verifier);
    result = server.ProcessRpcRequestOverUdp(stream);
    return hex(stream.getOutputBuffer());
  }

  static constexpr unsigned kNfs = 100003, kPortmap = 100000;
  const std::string kAccepted = "0000002a 00000001 00000000 00000000 00000000 ";
  const std::string kSuccess = kAccepted + "00000000 0000cafe";
  const std::string kTooWeak = "0000002a 00000001 00000001 00000001 00000005";

  RecordedLog log{LogLevel::dbg, LogLevel::info};
  rpc::RpcServer server;
  Program::Seen seen;
  RpcProgramResult result{};
};

TEST_F(RpcServerTest, HandsTheCallToItsProgram) {
  serve(kNfs);
  EXPECT_EQ(call(kNfs, 5, sys(0, 20, {30, 40})), kSuccess);
  EXPECT_EQ(seen.parameters.version, 3U);
  EXPECT_EQ(seen.parameters.procedure, 5U);
  EXPECT_EQ(seen.caller.stamp, 7U);
  EXPECT_STREQ(seen.caller.machineName.data(), "host");
  EXPECT_EQ(seen.caller.gid, 20U);
  EXPECT_EQ(seen.caller.groupCount, 2U);
  EXPECT_EQ(seen.caller.groups[1], 40U);
  EXPECT_EQ(call(100021, 0), kAccepted + "00000001") << "PROG_UNAVAIL";
  EXPECT_EQ(result, RpcProgramResult::GarbageArguments) << "the record ends with a failed call";
}

TEST_F(RpcServerTest, PutsTheProgramsFailureInPlaceOfItsResults) {
  for (const auto& [failure, status] :
       {std::pair{RpcProgramResult::GarbageArguments, "00000004"},
        std::pair{RpcProgramResult::ProcedureUnavailable, "00000003"}}) {
    serve(kNfs, [failure = failure](MemoryStream& stream) {
      stream << 1U << std::string("results that were begun");
      return failure;
    });
    EXPECT_EQ(call(kNfs, 1), kAccepted + status);
    EXPECT_EQ(result, failure);
  }
}

TEST_F(RpcServerTest, AnswersAVerifierThatHasABodyWithANullVerifier) {
  serve(kNfs);
  EXPECT_EQ(call(kNfs, 1, kNone, "00000006 00000005 61626364 65000000"), kSuccess);
  EXPECT_EQ(call(kNfs, 1, kNone, "00000002 00000000"),
            "0000002a 00000001 00000000 00000002 00000000 00000000 0000cafe");
  EXPECT_EQ(call(kNfs, 1, kNone, "00000006 00000009 61626364"), kAccepted + "00000004");
}

TEST_F(RpcServerTest, TreatsCredentialsBeyondRfc5531AsGarbage) {
  serve(kNfs);
  const auto groups = [](unsigned count) { return std::vector<unsigned>(count, 9); };
  EXPECT_EQ(call(kNfs, 1, sys(0, 0, groups(16), std::string(255, 'm'))), kSuccess);
  EXPECT_EQ(seen.caller.groupCount, 16U);
  EXPECT_EQ(std::string(seen.caller.machineName.data()), std::string(255, 'm'));

  const std::string garbage = kAccepted + "00000004";
  EXPECT_EQ(call(kNfs, 1, sys(0, 0, groups(17))), garbage);
  EXPECT_EQ(call(kNfs, 1, sys(0, 0, {}, std::string(256, 'm'))), garbage);
  EXPECT_EQ(call(kNfs, 1, "00000001 00000014 00000007 fffffff0 00000000 00000000 00000000"),
            garbage)
      << "a name longer than the call";
  EXPECT_EQ(call(kNfs, 1, "00000001 00000014 00000007 00000000 00000000 00000000 7fffffff"),
            garbage)
      << "more groups than the call holds";
  EXPECT_EQ(call(kNfs, 1, "00000001 00000010 00000007 00000000 00000000 00000000 00000000"),
            garbage)
      << "a body longer than its length";
  EXPECT_EQ(call(kNfs, 1, "00000006 ffffffff"), kTooWeak) << "the caller rule comes first";
  EXPECT_EQ(call(kPortmap, 1, "00000006 ffffffff"), garbage);
}

TEST_F(RpcServerTest, AnswersACallThatIsCutOffAnywhere) {
  serve(kNfs);
  const auto whole = unhex("0000002a 00000000 00000002 000186a3 00000003 00000001 " +
                           sys(0, 0, {1, 2, 3}) + kNone);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    MemoryStream stream;
    stream.setInputData({whole.data(), size});
    EXPECT_EQ(server.ProcessRpcRequestOverUdp(stream), RpcProgramResult::GarbageArguments) << size;
    EXPECT_EQ(stream.getOutputDataSize(), 24U) << size;
  }
}

struct CallerCase {
  const char* name;
  int allowedGroup;
  unsigned program, procedure;
  std::string credential;
  const char* denial;  // part of the warning; empty when the call is served
};

class CallerRuleTest : public RpcServerTest, public ::testing::WithParamInterface<CallerCase> {};

TEST_P(CallerRuleTest, AllowsOrDenies) {
  const CallerCase& c = GetParam();
  serve(c.program);
  server.setAllowedGroupId(c.allowedGroup);
  const std::string reply = call(c.program, c.procedure, c.credential);
  if (*c.denial == '\0') {
    EXPECT_EQ(reply, kSuccess);
    EXPECT_THAT(log.takeLines(), IsEmpty());
  } else {
    EXPECT_EQ(reply, kTooWeak);
    EXPECT_THAT(log.takeLines(),
                ElementsAre("warn Program [" + std::to_string(c.program) + "], procedure [" +
                            std::to_string(c.procedure) + "]: access denied. " + c.denial));
  }
}

const std::string kOtherFlavor = "00000006 00000000";
constexpr const char* kNoGroup = "There is no talvo group in the system.";
constexpr const char* kNotMember = "User does not have access to talvo group.";

INSTANTIATE_TEST_SUITE_P(
    Rule, CallerRuleTest,
    ::testing::Values(
        CallerCase{"AuthNone", 0, 100003, 1, kNone, ""},
        CallerCase{"OtherFlavorToNull", 0, 100003, 0, kOtherFlavor, ""},
        CallerCase{"OtherFlavor", 0, 100003, 1, kOtherFlavor, "Not supported auth type."},
        CallerCase{"OtherFlavorToPortmap", 0, 100000, 3, kOtherFlavor, ""},
        CallerCase{"Root", 0, 100005, 1, sys(0, 5, {6}), ""},
        CallerCase{"UserWithoutAGroupOnTheSystem", 0, 100003, 1, sys(1000, 0), kNoGroup},
        CallerCase{"UserToPortmap", 0, 100000, 4, sys(1000, 10), ""},
        CallerCase{"PrimaryGroup", 50, 100005, 1, sys(1000, 50), ""},
        CallerCase{"SupplementaryGroup", 50, 100003, 1, sys(1000, 10, {20, 50}), ""},
        CallerCase{"GroupZero", 50, 100003, 1, sys(1000, 10, {20, 0}), ""},
        CallerCase{"TenthGroup", 50, 100003, 1, sys(1000, 1, {2, 2, 2, 2, 2, 2, 2, 2, 2, 50}), ""},
        CallerCase{"EleventhGroup", 50, 100003, 1, sys(1000, 1, {2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 50}),
                   kNotMember},
        CallerCase{"Stranger", 50, 100003, 0, sys(1000, 10, {20}), kNotMember}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

}  // namespace
}  // namespace nfslib::testing
