#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>

#include "server/ports.h"
#include "support/counting_tree.h"
#include "support/nfs3_client.h"

#include <atomic>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

class ConcurrentClientsTest : public ::testing::TestWithParam<bool> {};

// Eight clients at once, each with listings of its own: their positions, the caches and the handle
// map are shared, their replies are not.
TEST_P(ConcurrentClientsTest, SeeTheSameTree) {
  if (!address::isPortUnused(111, "127.0.0.1", SOCK_STREAM)) GTEST_SKIP() << "port 111 is taken";
  CountingTree tree({"/d"});
  std::vector<std::string> names{".", ".."};  // which this tree lists
  for (int i = 0; i < 40; ++i) {
    names.push_back("file" + std::to_string(100 + i));
    tree.add("/d/" + names.back(), FileType::Regular);
  }
  NfsServer& server = NfsServer::instance();
  NfsMountSpec spec;
  spec.skipAddressAlias = true;
  spec.writeEnabled = GetParam();
  const NfsPath path("/tree");
  server.exportFileSystem(path, tree, spec);

  std::atomic<int> succeeded{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&] {
      try {
        Nfs3Client client(server.getNfsPort());
        const NfsHandle root = client.mount(path.str());
        for (int round = 0; round < 30; ++round) {
          const NfsHandle dir = checked(client.lookup(root, "d")).handle;
          std::vector<std::string> listed;
          for (const Nfs3Entry& entry : client.list(dir, 1024).entries)
            listed.push_back(entry.name);
          EXPECT_EQ(listed, names);
          const std::string& name = names[2 + static_cast<std::size_t>(round)];
          checked(client.getAttributes(checked(client.lookup(dir, name)).handle));
        }
        ++succeeded;
      } catch (const std::exception& e) {
        ADD_FAILURE() << e.what();
      }
    });
  }
  for (std::thread& client : clients) client.join();
  server.removeExport(path);
  EXPECT_EQ(succeeded, 8);
}

// On a writable export calls come one at a time, but nobody waits for another client to take a
// reply.
TEST_P(ConcurrentClientsTest, AreNotHeldUpByOneThatTakesNoReplies) {
  if (!address::isPortUnused(111, "127.0.0.1", SOCK_STREAM)) GTEST_SKIP() << "port 111 is taken";
  constexpr unsigned kTransfer = 786'432, kReads = 64, kNfs = 100003, kVersion = 3, kRead = 6;
  CountingTree tree({"/d"}, {"/d/large"});
  tree.change("/d/large", [](MetaData& md) { md.size = kTransfer; });
  NfsServer& server = NfsServer::instance();
  NfsMountSpec spec;
  spec.skipAddressAlias = true;
  spec.writeEnabled = GetParam();
  const NfsPath path("/tree");
  server.exportFileSystem(path, tree, spec);
  {
    Nfs3Client other(server.getNfsPort());
    const NfsHandle dir = checked(other.lookup(other.mount(path.str()), "d")).handle;
    const NfsHandle file = checked(other.lookup(dir, "large")).handle;
    MemoryStream arguments;
    arguments << file << std::uint64_t{0} << kTransfer;
    const auto bytes = arguments.getOutputBuffer();
    RpcClient silent(SOCK_STREAM, server.getNfsPort());
    for (unsigned xid = 1; xid <= kReads; ++xid) {
      silent.send(record(nullCall(xid, kNfs, kVersion, kRead) + Bytes(bytes.begin(), bytes.end())));
    }
    EXPECT_EQ(silent.receive(4).size(), 4U);  // it is being answered
    for (int i = 0; i < 100; ++i) checked(other.getAttributes(file));
  }
  server.removeExport(path);
}

INSTANTIATE_TEST_SUITE_P(Exports, ConcurrentClientsTest, ::testing::Bool(),
                         [](const auto& writable) -> std::string {
                           return writable.param ? "Writable" : "ReadOnly";
                         });

}  // namespace
}  // namespace nfslib::testing
