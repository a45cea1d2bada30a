#include <nfslib/nfs_mount_spec.h>

#include "rpc/mount_program.h"
#include "rpc/portmap_program.h"
#include "server/nfs_service.h"
#include "support/counting_tree.h"
#include "support/stream_call.h"

#include <memory>
#include <string>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

constexpr unsigned kPortmap = 100000, kNfs = 100003, kMount = 100005;
constexpr unsigned kTcp = 6, kUdp = 17;

class PortmapTest : public ::testing::Test {
 protected:
  PortmapTest() {
    auto program = std::make_unique<portmap::PortMapProgram>();
    program->map(kMount, 33050, kTcp, 3);
    program->map(kNfs, 33049, kTcp, 3);
    program->map(kMount, 33050, kUdp, 3);
    server.registerProgram(kPortmap, std::move(program));
  }
  Reply getPort(unsigned program, unsigned protocol) {
    return call(3, wire(program, 7U, protocol, 0U));  // whatever the version
  }

  rpc::RpcServer server;
  StreamCaller call{server, kPortmap, 2};
};

TEST_F(PortmapTest, TellsThePortOfWhatIsServed) {
  EXPECT_EQ(getPort(kNfs, kTcp).body(), wire(33049U));
  EXPECT_EQ(getPort(kMount, kUdp).body(), wire(33050U));
  EXPECT_EQ(getPort(kNfs, kUdp).body(), wire(0U));
  EXPECT_EQ(getPort(100009, kTcp).body(), wire(0U));
  for (const unsigned strange : {99999U, 100010U, 100021U}) {
    EXPECT_EQ(getPort(strange, kTcp).acceptStatus, kGarbageArguments) << strange;
  }
  EXPECT_EQ(call(3, wire(kNfs, 3U)).acceptStatus, kGarbageArguments) << "cut off";
}

TEST_F(PortmapTest, ListsItsTableInAFixedOrder) {
  const std::string list =
      "00000001 000186a0 00000002 00000006 0000006f "
      "00000001 000186a0 00000002 00000011 0000006f "
      "00000001 000186a3 00000003 00000006 00008119 "
      "00000001 000186a5 00000003 00000006 0000811a "
      "00000001 000186a5 00000003 00000011 0000811a "
      "00000000";
  EXPECT_EQ(call(4, "").body(), list);
  getPort(kNfs, kUdp);
  EXPECT_EQ(call(4, "").body(), list) << "a look-up leaves no entry behind";
}

// What rpcinfo and showmount send first; anything but "no such program" keeps them from version 2.
TEST_F(PortmapTest, LaterVersionsAreNotServed) {
  constexpr unsigned kProgramUnavailable = 1;
  for (const unsigned version : {3U, 4U}) {
    const StreamCaller later{server, kPortmap, version};
    const Reply reply = later(3, wire(kNfs, 3U, std::string("tcp"), std::string(), std::string()));
    EXPECT_EQ(reply.acceptStatus, kProgramUnavailable) << version;
    EXPECT_EQ(reply.body(), "") << version;
  }
}

TEST_F(PortmapTest, TakesNoRegistrations) {
  EXPECT_EQ(call(0, "").body(), "");
  for (const unsigned procedure : {1U, 2U, 5U, 6U, 0xFFFFFFFFU}) {
    EXPECT_EQ(call(procedure, wire(kNfs, 3U, kTcp, 1U)).acceptStatus, kProcedureUnavailable);
  }
}

class MountTest : public ::testing::Test {
 protected:
  MountTest() { server.registerProgram(kMount, std::make_unique<mount::MountProgram>(service)); }

  CountingTree tree;
  NfsService service;
  rpc::RpcServer server;
  StreamCaller call{server, kMount, 3};
};

TEST_F(MountTest, HandsOutTheRootHandleOfAnExport) {
  service.exportFileSystem(NfsPath("/a"), tree, {});
  const std::string handle = wire(NfsHandle{service.getGeneration(), 1, 1});
  EXPECT_EQ(call(1, wire(std::string("/a"))).body(), wire(0U) + " " + handle + " " + wire(1U, 1U));
  call.version = 1;
  EXPECT_EQ(call(1, wire(std::string("a/"))).body(), wire(0U) + " " + handle);
  EXPECT_ANY_THROW(call(1, wire(std::string("/b"))));
  EXPECT_EQ(call(1, "000000ff 2f610000").acceptStatus, kGarbageArguments);
}

TEST_F(MountTest, ListsTheExports) {
  EXPECT_EQ(call(5, "").body(), "00000000");
  service.exportFileSystem(NfsPath("/a"), tree, {});
  EXPECT_EQ(call(5, "").body(),
            "00000001 00000002 2f610000 00000001 00000001 2a000000 00000000 00000000");
}

TEST_F(MountTest, ForgetsWhoMounted) {
  EXPECT_EQ(call(0, "").acceptStatus, kAccepted);
  EXPECT_EQ(call(3, wire(std::string("/a"))).body(), "");
  for (const unsigned procedure : {2U, 4U, 6U}) {
    EXPECT_EQ(call(procedure, "").acceptStatus, kProcedureUnavailable);
  }
}

}  // namespace
}  // namespace nfslib::testing
