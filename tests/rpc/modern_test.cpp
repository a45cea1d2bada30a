#include <nfslib/nfs_mount_spec.h>

#include "rpc/mount_program.h"
#include "rpc/portmap_program.h"
#include "rpc/rpc_server.h"
#include "server/nfs_service.h"
#include "support/counting_tree.h"
#include "support/hex.h"
#include "support/recorded_log.h"
#include "support/stream_call.h"

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

// What the RPC server and its small programs answer in the modern profile.

namespace nfslib::testing {
namespace {

constexpr unsigned kPortmap = 100000, kNfs = 100003, kMount = 100005;
constexpr unsigned kTcp = 6, kUdp = 17;

// Served in version 3: procedure 0 answers nothing, 1 a word, 2 throws, 3 throws what is no
// exception; others are not served.
class Nfs : public rpc::RpcProgram {
 public:
  rpc::Versions versions() const override { return {3, 3}; }
  rpc::RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                            const rpc::AuthOpaque&) override {
    if (parameters.procedure > 3) return rpc::RpcProgramResult::ProcedureUnavailable;
    if (parameters.procedure >= 1) stream << 0xCAFEU;
    if (parameters.procedure == 2) throw std::runtime_error("the host is upset");
    if (parameters.procedure == 3) throw 7;
    return rpc::RpcProgramResult::Success;
  }
};

class ModernRpcTest : public ::testing::Test {
 protected:
  ModernRpcTest() {
    const Profile profile = profileOf(NfsServerPolicy::modern());
    service.setProfile(profile);
    server.setProfile(profile);
    server.setAllowedGroupId(50);
    auto portMap = std::make_unique<portmap::PortMapProgram>(profile, [](unsigned port) {
      return "127.0.0.1." + std::to_string(port / 256) + "." + std::to_string(port % 256);
    });
    portMap->map(kPortmap, 111, kTcp, 3);
    portMap->map(kMount, 33050, kTcp, 3);
    portMap->map(kNfs, 33049, kTcp, 3);
    portMap->map(kMount, 33050, kUdp, 3);
    server.registerProgram(kPortmap, std::move(portMap));
    server.registerProgram(kMount, std::make_unique<mount::MountProgram>(service));
    server.registerProgram(kNfs, std::make_unique<Nfs>());
  }
  // The reply, with its record mark, to a message of these words.
  std::string answer(const std::string& message) {
    MemoryStream stream;
    setInput(stream, message);
    server.ProcessRpcRequestOverTcp(stream);
    return hex(stream.getOutputBuffer());
  }
  static std::string sys(unsigned uid, unsigned gid, const std::vector<unsigned>& groups) {
    MemoryStream body;
    body << 7U << std::string("host") << uid << gid << groups;
    return wire(1U, body.getOutputBuffer());
  }

  RecordedLog log;
  CountingTree tree;
  NfsService service;
  rpc::RpcServer server;
  const std::string kNone = "00000000 00000000";
};

TEST_F(ModernRpcTest, AnswersAsRfc5531HasIt) {
  struct Case {
    const char* what;
    std::string head;   // message type, RPC version, program, version, procedure
    std::string reply;  // behind mark, xid and REPLY
  };
  const std::string accepted = "00000000 00000000 00000000 ";
  for (const Case& c : {
           Case{"SUCCESS", wire(0U, 2U, kNfs, 3U, 0U), accepted + "00000000"},
           Case{"PROG_UNAVAIL", wire(0U, 2U, 100227U, 3U, 0U), accepted + "00000001"},
           Case{"PROG_UNAVAIL to any call", wire(0U, 2U, 400122U, 1U, 5U), accepted + "00000001"},
           Case{"PROG_MISMATCH", wire(0U, 2U, kNfs, 4U, 0U),
                accepted + "00000002 00000003 00000003"},
           Case{"PROG_MISMATCH", wire(0U, 2U, kPortmap, 5U, 0U),
                accepted + "00000002 00000002 00000004"},
           Case{"PROC_UNAVAIL", wire(0U, 2U, kPortmap, 2U, 99U), accepted + "00000003"},
           Case{"RPC_MISMATCH", wire(0U, 3U, kNfs, 3U, 0U), "00000001 00000000 00000002 00000002"},
           Case{"AUTH_TOOWEAK", wire(0U, 2U, kNfs, 3U, 1U), "00000001 00000001 00000005"},
       }) {
    const std::string reply = answer("0000002a" + c.head + kNone + kNone);
    ASSERT_GT(reply.size(), 27U) << c.what;
    EXPECT_EQ(reply.substr(9), "0000002a 00000001 " + c.reply) << c.what;
  }
  EXPECT_EQ(answer("0000002a" + wire(1U, 2U, kNfs, 3U, 0U) + kNone + kNone), "") << "a reply";
}

TEST_F(ModernRpcTest, AProgramThatFailsIsASystemError) {
  for (const unsigned procedure : {2U, 3U}) {
    EXPECT_EQ(answer("0000002a" + wire(0U, 2U, kNfs, 3U, procedure) + sys(0, 0, {}) + kNone),
              "80000018 0000002a 00000001 00000000 00000000 00000000 00000005");
  }
}

TEST_F(ModernRpcTest, LetsInRootAndTheGroupAndNobodyElse) {
  struct Case {
    unsigned program, procedure;
    std::string credential;
    bool allowed;
  };
  const std::string stranger = sys(1000, 10, {0, 20}), other = "00000006 00000000 ";
  for (const Case& c : {
           Case{kNfs, 0, kNone, true},
           Case{kNfs, 1, kNone, false},
           Case{kNfs, 0, stranger, true},
           Case{kNfs, 1, stranger, false},
           Case{kNfs, 0, other, true},
           Case{kNfs, 1, other, false},
           Case{kNfs, 1, sys(0, 10, {}), true},
           Case{kNfs, 1, sys(1000, 50, {}), true},
           Case{kNfs, 1, sys(1000, 10, {20, 50}), true},
           Case{kMount, 0, kNone, true},
           Case{kMount, 1, kNone, false},
           Case{kMount, 3, stranger, false},
           Case{kMount, 5, kNone, true},
           Case{kPortmap, 4, kNone, true},
       }) {
    const std::string reply =
        answer("0000002a" + wire(0U, 2U, c.program, 3U, c.procedure) + c.credential + kNone);
    const bool denied = reply.substr(27) == "00000001 00000001 00000005";
    EXPECT_EQ(denied, !c.allowed) << c.program << " " << c.procedure << " " << c.credential;
  }
}

TEST_F(ModernRpcTest, PortMapperTellsUniversalAddresses) {
  const auto address = [&](unsigned version, unsigned program, const char* networkId) {
    const StreamCaller call{server, kPortmap, version};
    return call(3, wire(program, 3U, std::string(networkId), std::string(), std::string())).body();
  };
  for (const unsigned version : {3U, 4U}) {
    EXPECT_EQ(address(version, kNfs, "tcp"), wire(std::string("127.0.0.1.129.25")));
    EXPECT_EQ(address(version, kNfs, "udp"), wire(std::string()));
    EXPECT_EQ(address(version, kMount, "tcp6"), wire(std::string()));
    EXPECT_EQ(address(version, 100021, "tcp"), wire(std::string()));
    const StreamCaller call{server, kPortmap, version};
    EXPECT_EQ(call(0, "").body(), "");
    EXPECT_EQ(call(3, wire(kNfs, 3U)).acceptStatus, kGarbageArguments);
    EXPECT_EQ(call(1, "").acceptStatus, kProcedureUnavailable);
    EXPECT_THAT(call(4, "").body(), ::testing::EndsWith(wire(true, kMount, 3U, std::string("udp"),
                                                             std::string("127.0.0.1.129.26"),
                                                             std::string("superuser"), false)));
  }
  const StreamCaller getPort{server, kPortmap, 2};
  EXPECT_EQ(getPort(3, wire(kMount, 3U, kTcp, 0U)).body(), wire(33050U));
  EXPECT_EQ(getPort(3, wire(100021U, 4U, kTcp, 0U)).body(), wire(0U)) << "lockd";
}

TEST_F(ModernRpcTest, MountTellsWhyThereIsNoHandle) {
  service.exportFileSystem(NfsPath("/a"), tree, {});
  const StreamCaller call{server, kMount, 3};
  const auto mount = [&](const std::string& path) { return call(1, wire(path)).body(); };
  tree.onCall = [](const std::string&) { throw SystemNfsException(EACCES, "locked"); };
  EXPECT_EQ(mount("/a"), wire(13U));
  tree.onCall = nullptr;
  EXPECT_EQ(mount("/a"), wire(0U, NfsHandle{service.getGeneration(), 1, 1}, 1U, 1U));
  EXPECT_EQ(mount("/b"), wire(2U));
  EXPECT_EQ(mount("/" + std::string(1024, 'a')), wire(63U));
  EXPECT_EQ(call(2, "").body(), wire(false));
  EXPECT_EQ(call(4, "").acceptStatus, kAccepted);
  EXPECT_EQ(call(6, "").acceptStatus, kProcedureUnavailable);
}

}  // namespace
}  // namespace nfslib::testing
