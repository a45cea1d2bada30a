#include <nfslib/hosts/memory_file_system.h>
#include <nfslib/invalidation.h>
#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>

#include "server/ports.h"
#include "support/counting_tree.h"
#include "support/failure_of.h"
#include "support/nfs3_client.h"
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

// What was counted since it was made.
class Counted {
 public:
  explicit Counted(NfsServer& server) : m_server(server) {}

  // "calls/errors" of a procedure, or of an operation.
  std::string of(unsigned program, const std::string& name, bool isOperation = false) const {
    const auto find = [&](const NfsServerStatistics& all) {
      for (const auto& row : all.procedures) {
        if (row.program != program || row.name != name || row.isOperation != isOperation) continue;
        EXPECT_GT(row.serviceTimes.count(), 0U) << "the first call is timed";
        EXPECT_GT(row.serviceTimes.sum, 0ns);
        EXPECT_LE(row.serviceTimes.quantile(0.5), row.serviceTimes.quantile(0.99));
        return row;
      }
      return NfsServerStatistics::Procedure{};
    };
    const auto now = find(m_server.getStatistics()), then = find(m_before);
    return std::to_string(now.calls - then.calls) + "/" + std::to_string(now.errors - then.errors);
  }
  std::uint64_t of(std::uint64_t NfsServerStatistics::*number) const {
    return m_server.getStatistics().*number - m_before.*number;
  }
  std::string of(NfsServerStatistics::Cache NfsServerStatistics::*cache) const {
    const auto now = m_server.getStatistics().*cache, then = m_before.*cache;
    return std::to_string(now.hits - then.hits) + "/" + std::to_string(now.misses - then.misses);
  }

 private:
  NfsServer& m_server;
  const NfsServerStatistics m_before = m_server.getStatistics();
};

TEST_F(NfsServerTest, CountsCallsAndBytes) {
  using Statistics = NfsServerStatistics;
  std::mutex lock;
  std::vector<NfsConnection> seen;  // under the lock
  server.setConnectionObserver([&](const NfsConnection& connection) {
    const std::lock_guard guard(lock);
    seen.push_back(connection);
    throw std::runtime_error("nobody minds");
  });
  const Counted counted(server);
  hosts::MemoryFileSystem memory(1 << 20);
  spec.writeEnabled = true;
  server.exportFileSystem(kA, memory, spec);
  {
    Nfs3Client client(server.getNfsPort());
    const NfsHandle root = client.mount("/a");
    const NfsHandle file = checked(client.create(root, "file", 0, {})).handle;
    checked(client.write(file, 0, std::string(3000, 'x'), 2));
    for (int i = 0; i < 3; ++i) checked(client.read(file, 0, 1000));
    EXPECT_EQ(client.lookup(root, "none").status, 2U);
    EXPECT_EQ(server.getStatistics().openConnections, 1U);
    client.list(root, 8192);
  }
  server.removeExport(kA);
  server.setConnectionObserver({});

  EXPECT_EQ(counted.of(kMount, "MNT"), "1/0");
  EXPECT_EQ(counted.of(kNfs, "CREATE"), "1/0");
  EXPECT_EQ(counted.of(kNfs, "WRITE"), "1/0");
  EXPECT_EQ(counted.of(kNfs, "READ"), "3/0");
  EXPECT_EQ(counted.of(kNfs, "LOOKUP"), "1/1");
  EXPECT_EQ(counted.of(kNfs, "REMOVE"), "0/0");
  EXPECT_EQ(counted.of(&Statistics::bytesRead), 3000U);
  EXPECT_EQ(counted.of(&Statistics::bytesWritten), 3000U);
  EXPECT_EQ(counted.of(&Statistics::files), "3/1") << "one to write, the others to read";
  EXPECT_EQ(counted.of(&Statistics::acceptedConnections), 1U);
  EXPECT_EQ(server.getStatistics().openConnections, 0U);

  ASSERT_EQ(seen.size(), 2U);
  EXPECT_TRUE(seen[0].isOpen);
  EXPECT_EQ(seen[0].address, kLoopback);
  EXPECT_FALSE(seen[1].isOpen);
  EXPECT_EQ(seen[1].port, seen[0].port);
  EXPECT_EQ(seen[1].calls, 8U);
  EXPECT_EQ(seen[1].bytesReceived, counted.of(&Statistics::bytesReceived));
  EXPECT_EQ(seen[1].bytesSent, counted.of(&Statistics::bytesSent));
  EXPECT_GT(seen[1].bytesSent, 3000U);
}

TEST_F(NfsServerTest, CountsWhatIsNotServed) {
  const Counted counted(server);
  server.exportFileSystem(kA, tree, spec);
  RpcClient client(SOCK_STREAM, server.getNfsPort());
  const auto ask = [&](const Bytes& call) {
    client.send(record(call));
    return client.receiveRecord().has_value();
  };
  for (const unsigned procedure : {11U, 12345U, 0xFFFF'FFFFU}) {
    EXPECT_TRUE(ask(nullCall(1, kNfs, 3, procedure)));
  }
  EXPECT_TRUE(ask(nullCall(1, 99, 1)));
  // AUTH_SYS: stamp, no machine, uid 5, gid 5, no groups.
  EXPECT_TRUE(ask(wordBytes({1, 0, 2, kNfs, 3, 1, 1, 20, 0, 0, 5, 5, 0, 0, 0})));
  EXPECT_EQ(counted.of(kNfs, "#11"), "1/1");
  EXPECT_EQ(counted.of(kNfs, "OTHER"), "2/2");
  EXPECT_EQ(counted.of(kNfs, "GETATTR"), "0/0");
  EXPECT_EQ(counted.of(&NfsServerStatistics::invalidCalls), 1U);
  EXPECT_EQ(counted.of(&NfsServerStatistics::refusedCalls), 1U);
}

TEST_F(NfsServerTest, CountsOperationsOfVersion4) {
  constexpr unsigned kVersion = 4, kCompound = 1, kPutRootFh = 24, kGetFh = 10, kIllegal = 9999;
  spec.version = kVersion;
  const Counted counted(server);
  server.exportFileSystem(kA, tree, spec);
  RpcClient client(SOCK_STREAM, server.getNfsPort());
  const auto ask = [&](const std::initializer_list<unsigned> operations) {
    const Bytes head = wordBytes({0, 0, static_cast<unsigned>(operations.size())});
    client.send(record(nullCall(1, kNfs, kVersion, kCompound) + head + wordBytes(operations)));
    return client.receiveRecord().has_value();
  };
  EXPECT_TRUE(ask({kPutRootFh, kGetFh}));
  EXPECT_TRUE(ask({kPutRootFh, kIllegal, kGetFh}));
  EXPECT_EQ(counted.of(kNfs, "COMPOUND"), "2/1");
  EXPECT_EQ(counted.of(kNfs, "PUTROOTFH", true), "2/0");
  EXPECT_EQ(counted.of(kNfs, "GETFH", true), "1/0");
  EXPECT_EQ(counted.of(kNfs, "OTHER", true), "1/1");
}

// A host may tell at any time, whatever the server is about.
TEST_F(NfsServerTest, ClientsSeeWhatTheHostTellsOf) {
  const Invalidation change{.path = NfsPath("/d/f")};
  server.invalidate(tree, change);
  server.exportFileSystem(kA, tree, spec);
  {
    Nfs3Client client(server.getNfsPort());
    Nfs3Client mounting(server.getMountPort());
    const NfsHandle dir = checked(client.lookup(mounting.mount(kA.str()), "d")).handle;
    const NfsHandle file = checked(client.lookup(dir, "f")).handle;
    tree.change("/d/f", [](MetaData& md) { md.size = 7; });
    EXPECT_EQ(checked(client.getAttributes(file)).attributes.size, 0U);
    server.invalidate(tree, change);
    EXPECT_EQ(checked(client.getAttributes(file)).attributes.size, 7U);
    tree.add("/d/f", FileType::Regular);  // another one in its place
    server.invalidate(tree, change);
    EXPECT_NE(client.getAttributes(file).status, 0U);
    EXPECT_EQ(checked(client.lookup(dir, "f")).attributes.size, 0U);
  }
  std::atomic<bool> stop = false;
  std::thread telling([&] {
    while (!stop) server.invalidate(tree, change);
  });
  for (int i = 0; i < 3; ++i) {
    server.removeExport(kA);
    server.exportFileSystem(kA, tree, spec);
  }
  stop = true;
  telling.join();
  server.removeExport(kA);
  server.invalidate(tree, change);
}

}  // namespace
}  // namespace nfslib::testing
