#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>

#include "server/ports.h"
#include "support/counting_tree.h"
#include "support/failure_of.h"
#include "support/recorded_log.h"
#include "support/rpc_client.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::HasSubstr;

constexpr unsigned kPortmap = 100000, kNfs = 100003, kMount = 100005;
constexpr unsigned kPortmapPort = 111;
const NfsPath kA("/a"), kB("/b");

// Whether a NULL call of the program is answered at the address.
bool answers(int type, unsigned address, unsigned port, unsigned program) {
  RpcClient client(type, port, address);
  const Bytes call = nullCall(1, program, program == kPortmap ? 2 : 3);
  if (type == SOCK_DGRAM) {
    client.send(call);
    return client.receiveDatagram() == accepted(1);
  }
  client.send(record(call));
  return client.receiveRecord() == accepted(1);
}

// Ports below 1024 are needed: tests run on a network of their own where they can be had.
class NfsServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!address::isPortUnused(kPortmapPort, "127.0.0.1", SOCK_STREAM)) {
      GTEST_SKIP() << "port 111 cannot be had here";
    }
    spec.skipAddressAlias = true;
  }
  void TearDown() override {
    for (const NfsPath& path : {kA, kB}) {
      try {
        server.removeExport(path);
      } catch (const std::runtime_error&) {  // it was not exported
      }
    }
    EXPECT_EQ(failureOf([&] { server.getNfsPort(); }), "NFS server has no running mount service.");
    EXPECT_TRUE(address::isPortUnused(kPortmapPort, "0.0.0.0", SOCK_STREAM));
  }

  NfsServer& server = NfsServer::instance();
  CountingTree tree = CountingTree({"/d"}, {"/d/f"});
  NfsMountSpec spec;
};

TEST_F(NfsServerTest, RunsFromTheFirstExportToTheLast) {
  RecordedLog log({LogLevel::dbg});
  EXPECT_EQ(failureOf([&] { server.getAddress(); }),
            "NFS server is not listening on any network address.");
  server.exportFileSystem(kA, tree, spec);
  EXPECT_EQ(server.getAddress(), kLoopback);
  const unsigned nfsPort = server.getNfsPort();
  EXPECT_THAT(log.takeLines(), Contains("info NFS3 server via TCP has been started."));
  for (const unsigned program : {kPortmap, kMount, kNfs}) {
    EXPECT_TRUE(answers(SOCK_STREAM, kLoopback, nfsPort, program));
    EXPECT_TRUE(answers(SOCK_STREAM, kLoopback, server.getMountPort(), program));
    EXPECT_TRUE(answers(SOCK_DGRAM, kLoopback, server.getMountPort(), program));
    EXPECT_TRUE(answers(SOCK_STREAM, kLoopback, kPortmapPort, program));
    EXPECT_TRUE(answers(SOCK_DGRAM, kLoopback, kPortmapPort, program));
  }

  server.exportFileSystem(kB, tree, spec);
  EXPECT_EQ(failureOf([&] { server.exportFileSystem(kB, tree, spec); }),
            "Failed to export NFS file system. Error [NFS file system [/b] is already exported.]");
  EXPECT_EQ(failureOf([&] { server.removeExport(NfsPath("/c")); }),
            "Exported NFS file system has not been removed. Error [NFS file system [/c] is not "
            "exported.]");
  server.removeExport(kA);
  EXPECT_EQ(server.getNfsPort(), nfsPort);
  server.removeExport(kB);
  EXPECT_THAT(log.takeLines(), Contains("info NFS3 server via TCP has been stopped."));
  EXPECT_THROW(answers(SOCK_STREAM, kLoopback, nfsPort, kNfs), std::runtime_error);

  server.exportFileSystem(kA, tree, spec);
  EXPECT_EQ(server.getNfsPort(), nfsPort) << "a later start comes back on the same ports";
}

TEST_F(NfsServerTest, ServesOverUdpAndRestartsInAnotherMode) {
  spec.protocol = NfsMountSpec::Protocol::udp;
  spec.useNfsPort = freePort(SOCK_DGRAM);
  server.exportFileSystem(kA, tree, spec);
  EXPECT_EQ(server.getNfsPort(), spec.useNfsPort);
  for (const unsigned port : {server.getNfsPort(), server.getMountPort(), kPortmapPort}) {
    EXPECT_TRUE(answers(SOCK_DGRAM, kLoopback, port, kNfs));
  }
  EXPECT_THROW(answers(SOCK_STREAM, kLoopback, server.getNfsPort(), kNfs), std::runtime_error);

  spec.protocol = NfsMountSpec::Protocol::tcp;
  server.reRunServer(spec);
  EXPECT_TRUE(answers(SOCK_STREAM, kLoopback, server.getNfsPort(), kNfs));
}

TEST_F(NfsServerTest, TellsAFailureAtOnceAndLeavesNothing) {
  const unsigned port = freePort();
  std::optional<network::SocketDescriptor> holder(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = htons(static_cast<std::uint16_t>(port));
  own.sin_addr.s_addr = kLoopback;
  ASSERT_EQ(bind(*holder, reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
  ASSERT_EQ(listen(*holder, 1), 0);

  spec.useNfsPort = port;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(failureOf([&] { server.exportFileSystem(kA, tree, spec); }),
            "Failed to export NFS file system. Error [Failed to start NFS server. Error [Cannot "
            "serve [TCP] port [" +
                std::to_string(port) +
                "] of [127.0.0.1]: [Address already in use]. Stop the program that uses the port, "
                "or choose another one.]]");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_TRUE(address::isPortUnused(kPortmapPort, "0.0.0.0", SOCK_STREAM));

  holder.reset();
  server.exportFileSystem(kA, tree, spec);  // the same path, with the port free
  EXPECT_EQ(server.getNfsPort(), port);
  server.removeExport(kA);

  spec.version = 5;
  EXPECT_THAT(failureOf([&] { server.exportFileSystem(kA, tree, spec); }),
              HasSubstr("There is no NFS version [5]."));
}

// The tree may be gone as soon as removeExport has returned, so no request may still be using it.
TEST_F(NfsServerTest, WithdrawsATreeOnlyWhenNobodyUsesIt) {
  server.exportFileSystem(kB, tree, spec);
  std::mutex lock;
  std::condition_variable changed;
  bool inside = false, mayLeave = false;
  auto slow = std::make_unique<CountingTree>();
  slow->onCall = [&](const std::string&) {
    std::unique_lock guard(lock);
    inside = true;
    changed.notify_all();
    changed.wait_for(guard, 10s, [&] { return mayLeave; });
  };
  server.exportFileSystem(kA, *slow, spec);

  RpcClient client(SOCK_STREAM, server.getNfsPort());
  client.send(record(nullCall(1, kMount, 3, 1) + wordBytes({2, 0x2F610000})));  // MNT "/a"
  {
    std::unique_lock guard(lock);
    ASSERT_TRUE(changed.wait_for(guard, 10s, [&] { return inside; }));
  }
  std::atomic<bool> removed{false};
  std::thread remover([&] {
    server.removeExport(kA);
    removed = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(removed);
  {
    const std::lock_guard guard(lock);
    mayLeave = true;
  }
  changed.notify_all();
  remover.join();
  slow.reset();
  EXPECT_TRUE(client.receiveRecord().has_value());
}

TEST_F(NfsServerTest, GivesClientsOfVersion4TimeToLeaveAndNoMore) {
  constexpr unsigned kVersion = 4, kCompound = 1, kExchangeId = 42, kGarbage = 4;
  spec.version = kVersion;
  server.exportFileSystem(kA, tree, spec);
  RpcClient client(SOCK_STREAM, server.getNfsPort());
  // A WRITE of 1 MiB with its header is too long, and no reason to go.
  client.send(record(nullCall(1, kNfs, kVersion, kCompound) + Bytes(1'048'576)));
  EXPECT_EQ(client.receiveRecord(), accepted(1, kGarbage));
  const auto identify = [](unsigned owner) {
    return wordBytes({0, 1, 1, kExchangeId, 0, 0, 4, owner, 0, 0, 0});
  };
  client.send(record(nullCall(2, kNfs, kVersion, kCompound) + identify(7)));
  ASSERT_TRUE(client.receiveRecord().has_value());

  const auto begin = std::chrono::steady_clock::now();
  server.removeExport(kA);
  const auto waited = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(waited, 10s);
  EXPECT_LT(waited, 15s);
}

}  // namespace
}  // namespace nfslib::testing
