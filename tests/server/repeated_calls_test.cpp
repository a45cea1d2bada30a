#include "common/statistics.h"
#include "network/tcp_server.h"
#include "network/udp_server.h"
#include "support/nfs3_fixture.h"
#include "support/rpc_client.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// What becomes of a call of version 3 that comes twice.

namespace nfslib::testing {
namespace {

const std::string kNothing = wire(0U, 0U, 0U, 0U, 0U, 0U);  // sattr3

class RepeatedCallsTest : public Nfs3Test {
 protected:
  RepeatedCallsTest() {
    for (const char* path : {"/d", "/d/empty"}) dir(path);
    for (const char* path : {"/d/f", "/d/doomed", "/d/moved"}) file(path, "content");
  }
  // On a port of its own for each transport.
  void listen(const Profile& profile) {
    service.setProfile(profile);
    server.setProfile(profile);
    server.allowParallelRequests();
    serve(true);
    d = handleOf("/d");
    tcp.emplace(kLoopback, htons(static_cast<std::uint16_t>(tcpPort)), server);
    udp.emplace(kLoopback, htons(static_cast<std::uint16_t>(udpPort)), server);
    tcp->start(stop);
    udp->start(stop);
  }
  static Bytes callOf(unsigned xid, unsigned procedure, const std::string& arguments) {
    MemoryStream root;  // the body of its credential
    root << 7U << std::string("host") << 0U << 0U << 0U;
    const Bytes head = wordBytes({xid, 0, 2, kProgram, 3, procedure});
    return head + unhex(wire(1U, root.getOutputBuffer(), 0U, 0U) + arguments);
  }
  static Bytes ask(RpcClient& client, const Bytes& call) {
    client.send(record(call));
    return client.receiveRecord().value();
  }
  Bytes askAnew(const Bytes& call) const {
    RpcClient client(SOCK_STREAM, tcpPort);
    return ask(client, call);
  }
  // A MemoryStream of its own for each call, as if it came from that address.
  Bytes askThrough(rpc::CallerAddress address, const Bytes& call) {
    MemoryStream stream;
    stream.setInputData({call.data(), call.size()});
    server.ProcessRpcRequestOverUdp(stream, address);
    const auto reply = stream.getOutputBuffer();
    return {reply.begin(), reply.end()};
  }
  // What stands behind the head of the reply.
  static unsigned statusOf(const Bytes& reply) {
    MemoryStream in;
    in.setInputData({reply.data(), reply.size()});
    in.skipInput(24);
    unsigned status = 0;
    in >> status;
    return in ? status : ~0U;
  }

  struct Change {
    const char* operation;  // of the host
    unsigned procedure;
    std::string arguments;
  };
  std::vector<Change> changes() {
    const auto entry = [&](const char* name) { return wire(d, std::string(name)); };
    const std::string guard = wire(true, attributes("/d/f").changeTime,
                                   view->changeTimeOf(attributes("/d/f")).nanoseconds);
    return {
        {"SetMetaData", kSetAttr,
         wire(handleOf("/d/f")) + wire(true, 0600U, 0U, 0U, 0U, 0U, 0U) + guard},
        {"CreateFile", kCreate, entry("new") + wire(1U) + kNothing},
        {"CreateSubdir", kMkDir, entry("sub") + kNothing},
        {"CreateSymlink", kSymlink, entry("link") + kNothing + wire(std::string("f"))},
        {"Link", kLink, wire(handleOf("/d/f")) + entry("name")},
        {"MoveEntry", kRename, entry("moved") + entry("there")},
        {"RemoveFile", kRemove, entry("doomed")},
        {"RemoveSubdir", kRmDir, entry("empty")},
    };
  }

  const unsigned tcpPort = freePort(), udpPort = freePort(SOCK_DGRAM);
  bool stop = false;
  NfsHandle d;
  std::optional<network::TcpServer> tcp;
  std::optional<network::UdpServer> udp;
};

TEST_F(RepeatedCallsTest, AreDoneOnceAndAnsweredTheSame) {
  listen(profileOf(NfsServerPolicy::modern()));
  const auto before = statistics::total(statistics::Cache::Replies);
  unsigned xid = 100;
  RpcClient stream(SOCK_STREAM, tcpPort), datagrams(SOCK_DGRAM, udpPort);
  const auto askByDatagram = [&](const Bytes& call) {
    datagrams.send(call);
    return datagrams.receiveDatagram();
  };
  for (const Change& change : changes()) {
    const Bytes call = callOf(++xid, change.procedure, change.arguments);
    const bool overUdp = xid % 2 == 0;
    host.takeCalls(change.operation);
    const Bytes first = overUdp ? askByDatagram(call) : ask(stream, call);
    EXPECT_EQ(statusOf(first), kOk) << change.operation;
    const unsigned long made = host.takeCalls(change.operation);
    EXPECT_GE(made, 1U) << change.operation;
    EXPECT_EQ(ask(stream, call), first) << change.operation;
    EXPECT_EQ(askAnew(call), first) << change.operation << " on a new connection";
    EXPECT_EQ(askByDatagram(call), first) << change.operation;
    EXPECT_EQ(host.takeCalls(change.operation), 0U) << change.operation;
    // Under another xid it is another call, and fails since the first one was done.
    EXPECT_NE(statusOf(ask(stream, callOf(xid + 1000, change.procedure, change.arguments))), kOk)
        << change.operation;
  }
  EXPECT_THAT(log.takeLines(),
              ::testing::Contains(::testing::HasSubstr("came again: program [100003]")));
  const auto after = statistics::total(statistics::Cache::Replies);
  EXPECT_EQ(after.hits - before.hits, 3 * changes().size());
  EXPECT_EQ(after.misses - before.misses, 2 * changes().size());
}

TEST_F(RepeatedCallsTest, AnotherCallIsDoneUnderTheSameXid) {
  listen(profileOf(NfsServerPolicy::modern()));
  constexpr unsigned kXid = 7, kHere = 1, kThere = 2;
  const auto make = [&](const char* name) {
    return callOf(kXid, kMkDir, wire(d, std::string(name)) + kNothing);
  };
  EXPECT_EQ(statusOf(askThrough(kHere, make("one"))), kOk);
  EXPECT_EQ(statusOf(askThrough(kHere, make("two"))), kOk);
  EXPECT_EQ(host.takeCalls("CreateSubdir"), 2U);
  EXPECT_EQ(statusOf(askThrough(kHere, make("one"))), kOk) << "repeated";
  EXPECT_EQ(statusOf(askThrough(kThere, make("one"))), 17U) << "another caller's";
  EXPECT_EQ(statusOf(askThrough({}, make("one"))), 17U) << "through no socket";
  // A refusal is repeated as well.
  directoryAt(NfsPath("/d"))->RemoveSubdir("one");
  EXPECT_EQ(statusOf(askThrough(kThere, make("one"))), 17U);
  // What may be done again is done again.
  const Bytes get = callOf(kXid, kGetAttr, wire(d));
  const Bytes before = askThrough(kHere, get);
  MetaData md = attributes("/d");
  md.mode = 0700;
  directoryAt(NfsPath("/d"))->SetMetaData(md);
  view->dropMetaData(NfsPath("/d"));
  EXPECT_NE(askThrough(kHere, get), before);
  const Bytes write =
      callOf(kXid, kWrite, wire(handleOf("/d/f"), std::uint64_t{0}, 1U, 2U, std::string("x")));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(statusOf(askThrough(kHere, write)), kOk);
  EXPECT_EQ(host.takeCalls("Write"), 2U);
}

TEST_F(RepeatedCallsTest, OneThatComesWhileItIsServedWaits) {
  listen(profileOf(NfsServerPolicy::modern()));
  std::atomic<bool> isServed{false}, mayGoOn{false};
  host.onCall = [&](std::string_view operation) {
    if (operation != "RemoveFile") return;
    isServed = true;
    while (!mayGoOn) std::this_thread::yield();
  };
  const Bytes call = callOf(9, kRemove, wire(d, std::string("doomed")));
  RpcClient first(SOCK_STREAM, tcpPort), second(SOCK_STREAM, tcpPort), other(SOCK_STREAM, tcpPort);
  first.send(record(call));
  while (!isServed) std::this_thread::yield();
  second.send(record(call));
  EXPECT_EQ(statusOf(ask(other, callOf(10, kGetAttr, wire(d)))), kOk) << "nobody else waits";
  mayGoOn = true;
  const auto reply = first.receiveRecord();
  ASSERT_TRUE(reply);
  EXPECT_EQ(statusOf(*reply), kOk);
  EXPECT_EQ(second.receiveRecord(), reply);
  EXPECT_EQ(host.takeCalls("RemoveFile"), 1U);
}

TEST_F(RepeatedCallsTest, AreDoneTwiceInTheClassicProfile) {
  listen({});
  const Bytes call = callOf(9, kRemove, wire(d, std::string("doomed")));
  EXPECT_EQ(statusOf(askAnew(call)), kOk);
  EXPECT_EQ(statusOf(askAnew(call)), kNoEntry);
}

}  // namespace
}  // namespace nfslib::testing
