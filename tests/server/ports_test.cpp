#include "server/ports.h"

#include "server/scoped_cleanup_task.h"
#include "support/failure_of.h"
#include "support/recorded_log.h"
#include "support/rpc_client.h"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;

// Holds a port for the length of a test.
network::SocketDescriptor occupy(unsigned port) {
  network::SocketDescriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = htons(static_cast<std::uint16_t>(port));
  own.sin_addr.s_addr = kLoopback;
  EXPECT_EQ(bind(socket, reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
  EXPECT_EQ(listen(socket, 1), 0);
  return socket;
}

TEST(PortChoiceTest, PrefersTheConfiguredThenTheRememberedThenAFreePort) {
  RecordedLog log;
  const unsigned busy = freePort();
  const std::string at = "127.0.0.1:" + std::to_string(busy);
  const auto holder = occupy(busy);
  unsigned remembered = 0;
  EXPECT_EQ(address::choosePort(busy, busy, 0, remembered, SOCK_STREAM), busy)
      << "a configured port is taken as it is";
  EXPECT_EQ(remembered, 0U);
  log.takeLines();
  const unsigned found = address::choosePort(busy, 0, busy + 1, remembered, SOCK_STREAM);
  EXPECT_GE(found, busy + 2) << "neither the busy one nor the excluded one";
  EXPECT_EQ(remembered, found);
  const auto lines = log.takeLines();
  ASSERT_GE(lines.size(), 5U);
  EXPECT_EQ(lines[0], "info Using the default port: [" + std::to_string(busy) + "]");
  EXPECT_EQ(lines[1], "info Trying endpoint: [" + at + "]");
  EXPECT_EQ(lines[2], "info Port is in use: [" + at + "]");
  EXPECT_EQ(lines.back(), "info Using port: [" + std::to_string(found) + "]");

  EXPECT_EQ(address::choosePort(busy, 0, 0, remembered, SOCK_STREAM), found);
  EXPECT_THAT(log.takeLines(),
              ElementsAre("info Using the selected port: [" + std::to_string(found) + "]"));
}

TEST(PortChoiceTest, RefusesWhatIsNoPort) {
  RecordedLog log;
  EXPECT_EQ(failureOf([] { address::getMountProgramPort(SOCK_STREAM, 70000, 0); }),
            "useMountPort parameter cannot be larger than 65535, the current value: [70000]");
  EXPECT_EQ(failureOf([] { address::getNfsProgramPort(SOCK_STREAM, 65536, 0); }),
            "useNfsPort parameter cannot be larger than 65535, current value: [65536]");
  EXPECT_THAT(
      log.takeLines(),
      ElementsAre("info Specify mount port.",
                  "err Incorrect useMountPort parameter value in config: [70000]",
                  "info Specify NFS port.", "err Incorrect useNFSPort parameter value in config"));
  EXPECT_EQ(failureOf([] { address::getNextFreePort(65536, 0, SOCK_STREAM); }),
            "Exceeded the maximum number of retries");
}

TEST(ScopedCleanupTaskTest, LetsNothingOut) {
  RecordedLog log;
  {
    const utility::ScopedCleanupTask task([] { throw std::runtime_error("no"); }, "a");
  }
  {
    const utility::ScopedCleanupTask task([] { throw 1; }, "b");
  }
  { const utility::ScopedCleanupTask task({}, "c"); }
  const auto lines = log.takeLines();
  ASSERT_EQ(lines.size(), 9U);
  EXPECT_EQ(lines[0], "dbg Scoped cleanup task [a] has been registered.");
  EXPECT_EQ(lines[1], "dbg Running scoped cleanup task [a].");
  EXPECT_EQ(lines[2], "err Scoped cleanup task [a] has failed to start.: no");
  EXPECT_EQ(lines[5], "err Scoped cleanup task [b] has failed; unknown error.");
  EXPECT_THAT(lines[8], ::testing::StartsWith("err Scoped cleanup task [c] has failed to start."));
}

}  // namespace
}  // namespace nfslib::testing
