#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>

#include "common/xdr_records.h"
#include "server/ports.h"
#include "support/counting_tree.h"
#include "support/rpc_client.h"

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

constexpr unsigned kNfs = 100003, kMount = 100005;
constexpr unsigned kMnt = 1, kGetAttr = 1, kLookup = 3, kReadDirPlus = 17;

// An NFS client of its own connection.
class Client {
 public:
  explicit Client(unsigned port) : m_peer(SOCK_STREAM, port) {}

  // The results of a call that must succeed with status 0, behind that status; until the next call.
  template <class... Arguments>
  MemoryStream& call(unsigned program, unsigned procedure, const Arguments&... arguments) {
    MemoryStream body;
    (body << ... << arguments);
    const auto bytes = body.getOutputBuffer();
    ++m_xid;
    m_peer.send(record(nullCall(m_xid, program, 3, procedure) + Bytes(bytes.begin(), bytes.end())));
    const auto reply = m_peer.receiveRecord();
    if (!reply || reply->size() < 28) throw std::runtime_error("no reply");
    if (Bytes(reply->begin(), reply->begin() + 24) != accepted(m_xid)) {
      throw std::runtime_error("not accepted");
    }
    m_results.setInputData({reply->data() + 24, reply->size() - 24});
    unsigned status = 1;
    m_results >> status;
    if (status != 0) throw std::runtime_error("status " + std::to_string(status));
    return m_results;
  }
  NfsHandle lookup(const NfsHandle& dir, const std::string& name) {
    NfsHandle handle;
    call(kNfs, kLookup, dir, name) >> handle;
    return handle;
  }
  std::vector<std::string> list(const NfsHandle& dir) {
    std::vector<std::string> names;
    unsigned long cookie = 0;
    for (bool eof = false; !eof;) {
      MemoryStream& page = call(kNfs, kReadDirPlus, dir, cookie, 0UL, 512U, 1024U);
      page.skipInput(88 + 8);  // the directory's attributes and the verifier
      bool another = false;
      while (page >> another, another) {
        unsigned long fileId = 0;
        std::string name;
        page >> fileId >> name >> cookie;
        page.skipInput(88 + 24);  // attributes and handle
        names.push_back(name);
      }
      page >> eof;
      if (!page) throw std::runtime_error("a page that is cut off");
    }
    return names;
  }

 private:
  RpcClient m_peer;
  MemoryStream m_results;
  unsigned m_xid = 0;
};

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
        Client client(server.getNfsPort());
        NfsHandle root;
        client.call(kMount, kMnt, path.str()) >> root;
        for (int round = 0; round < 30; ++round) {
          const NfsHandle dir = client.lookup(root, "d");
          EXPECT_EQ(client.list(dir), names);
          client.call(kNfs, kGetAttr,
                      client.lookup(dir, names[2 + static_cast<std::size_t>(round)]));
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

INSTANTIATE_TEST_SUITE_P(Exports, ConcurrentClientsTest, ::testing::Bool(),
                         [](const auto& writable) -> std::string {
                           return writable.param ? "Writable" : "ReadOnly";
                         });

}  // namespace
}  // namespace nfslib::testing
