#include <nfslib/nfs_mounter.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>

#include "server/ports.h"
#include "support/counting_tree.h"
#include "support/failure_of.h"
#include "support/recorded_commands.h"
#include "support/recorded_log.h"
#include "support/rpc_client.h"

#include <algorithm>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

// Mounts with commands that are kept instead of run, on a server that is real.
class NfsMounterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!address::isPortUnused(111, "127.0.0.1", SOCK_STREAM)) {
      GTEST_SKIP() << "port 111 cannot be had here";
    }
    spec.skipAddressAlias = true;
  }
  // Nothing is left running, whatever happened.
  void TearDown() override {
    EXPECT_THROW(server.getNfsPort(), std::runtime_error);
    EXPECT_TRUE(address::isPortUnused(111, "0.0.0.0", SOCK_STREAM));
  }

  std::unique_ptr<NfsMounter> mount(const std::string& where = "/") {
    return std::make_unique<NfsMounter>(where, tree, spec, nullptr);
  }
  // The export path in a mount line.
  static std::string exportOf(const std::string& line) {
    std::smatch found;
    const std::regex pattern(R"( [0-9.]+:(/\{[0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12}\}) )");
    return std::regex_search(line, found, pattern) ? found[1].str() : "no export in " + line;
  }
  static std::string optionIn(const std::string& line, const std::string& name) {
    const std::size_t at = line.rfind(name + "=");
    return line.substr(at, line.find_first_of(", ", at) - at);
  }

  RecordedLog log;
  RecordedCommands commands;
  NfsServer& server = NfsServer::instance();
  CountingTree tree = CountingTree({"/d"}, {"/d/f"});
  NfsMountSpec spec;
};

TEST_F(NfsMounterTest, MountsUnderPathsOfTheirOwnAndTakesThemAway) {
  auto first = mount("/");
  auto second = mount("/tmp");
  const auto lines = commands.takeLines();
  ASSERT_THAT(lines, SizeIs(2));
  for (const std::string& line : lines) {
    EXPECT_EQ(optionIn(line, "port"), "port=" + std::to_string(server.getNfsPort()));
    EXPECT_EQ(exportOf(line).size(), 39U);
  }
  EXPECT_NE(exportOf(lines[0]), exportOf(lines[1]));
  EXPECT_EQ(optionIn(lines[0], "vers"), "vers=3");

  first.reset();
  EXPECT_THAT(commands.takeLines(), ElementsAre(system::hostCommands().unmount("/")));
  EXPECT_NE(server.getNfsPort(), 0U) << "the second is still there";
  second.reset();
  EXPECT_THAT(commands.takeLines(), ElementsAre(system::hostCommands().unmount("/tmp")));
}

// The sink is the host's from the constructor to the destructor.
TEST_F(NfsMounterTest, UsesTheHostsLog) {
  CNfsLibLogger::getInstance().resetImpl();
  { NfsMounter mounter("/", tree, spec, log.sink()); }
  const auto lines = log.takeLines();
  EXPECT_THAT(lines, Contains("info Unmounting NFS mount point [/]."));
  EXPECT_THAT(lines, Contains("info NFS3 server via TCP has been stopped."));
  CNfsLibLogger::getInstance().getImpl()->info("nobody's");
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(NfsMounterTest, AFailedMountLeavesNothing) {
  commands.fail("mount", 32);
  EXPECT_THAT(failureOf([&] { mount(); }), StartsWith("Failed to mount NFS export [127.0.0.1:/{"));
  EXPECT_THAT(commands.takeLines(), SizeIs(1)) << "version 3 is not tried twice";
}

TEST_F(NfsMounterTest, AServerThatCannotStartLeavesNothing) {
  spec.useNfsPort = 70'000;
  EXPECT_THAT(failureOf([&] { mount(); }), HasSubstr("70000"));
  EXPECT_THAT(commands.takeLines(), IsEmpty());

  spec.useNfsPort = 0;
  spec.skipAddressAlias = false;
  commands.fail("127.127.", 2);
  EXPECT_THAT(failureOf([&] { mount(); }), HasSubstr("Failed to add address [127.127."));
  EXPECT_THAT(commands.takeLines(), SizeIs(1));
}

TEST_F(NfsMounterTest, TheAddressIsTakenBackWithTheMount) {
  spec.skipAddressAlias = false;
  mount().reset();
  const auto lines = commands.takeLines();
  ASSERT_THAT(lines, SizeIs(4));
  EXPECT_THAT(lines[0], HasSubstr("addr"));
  EXPECT_THAT(lines[3], HasSubstr(lines[0].substr(lines[0].find("127.127."))));
}

TEST_F(NfsMounterTest, Version4FallsBackToVersion3Once) {
  spec.version = 4;
  spec.skipAddressAlias = false;
  spec.writeEnabled = true;
  commands.fail("vers=4", 32);
  auto mounter = mount();
  auto lines = commands.takeLines();
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(optionIn(lines[0], "vers"), "vers=4");
  EXPECT_THAT(lines[0], HasSubstr(" 127.0.0.1:/{"));
  EXPECT_THAT(lines[1], HasSubstr("addr"));  // which version 3 has
  EXPECT_EQ(optionIn(lines[2], "vers"), "vers=3");
  EXPECT_THAT(lines[2], HasSubstr(" 127.127."));
  EXPECT_EQ(exportOf(lines[0]), exportOf(lines[2]));
  EXPECT_NE(server.getMountPort(), 0U);
  const std::string warning =
      "session warn Unable to mount backup using NFS4. NFS3 will be forced. Check your OS "
      "documentation for proper NFS4 configuration";
  const auto said = log.takeLines();
  EXPECT_EQ(std::count(said.begin(), said.end(), warning), 1);
  EXPECT_THAT(said, Contains(StartsWith("err : Failed to mount NFS export [127.0.0.1:")));
  mounter.reset();
  commands.takeLines();

  // A fallback that fails is a failure like any other.
  commands.fail("vers=3", 32);
  EXPECT_THAT(failureOf([&] { mount(); }), HasSubstr("vers=3"));
  EXPECT_THAT(commands.takeLines(), SizeIs(4));  // two mounts; an address that came and went
}

TEST_F(NfsMounterTest, Version4IsMountedWhereItCanBe) {
  spec.version = 4;
  spec.skipAddressAlias = false;
  auto mounter = mount();
  const auto lines = commands.takeLines();
  ASSERT_THAT(lines, SizeIs(1));
  EXPECT_EQ(optionIn(lines[0], "vers"), "vers=4");
  EXPECT_EQ(server.getMountPort(), 0U);
  RpcClient client(SOCK_STREAM, server.getNfsPort());
  client.send(record(nullCall(1, 100003, 4)));
  EXPECT_EQ(client.receiveRecord(), accepted(1));
  EXPECT_THAT(log.takeLines(), Contains("info NFS4 server has been started."));
}

TEST_F(NfsMounterTest, AFailedUnmountStillWithdrawsTheTree) {
  auto mounter = mount();
  commands.fail("umount", 16);
  mounter.reset();
  EXPECT_THAT(log.takeLines(), Not(Contains(HasSubstr("NFS server failed"))));
}

}  // namespace
}  // namespace nfslib::testing
