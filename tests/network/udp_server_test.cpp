#include "network/udp_server.h"

#include "rpc/portmap_program.h"
#include "rpc/rpc_server.h"
#include "support/recorded_log.h"
#include "support/rpc_client.h"

#include <memory>
#include <optional>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

constexpr unsigned kPortmap = 100000;
constexpr unsigned kTest = 200000;
constexpr unsigned kGarbage = 4;

// BLOB (2): as many bytes as asked, cut to what a reply may hold; TOO LONG (3): more than a
// datagram; THROW (4).
class TestProgram : public rpc::RpcProgram {
 public:
  rpc::RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                            const rpc::AuthOpaque&) override {
    if (parameters.procedure == 2) {
      unsigned size = 0;
      stream >> size;
      stream.writeZeros(std::min(size, stream.outputSpace()));
    } else if (parameters.procedure == 3) {
      stream.writeZeros(100'000);
    } else if (parameters.procedure == 4) {
      throw std::runtime_error("the host is upset");
    }
    return rpc::RpcProgramResult::Success;
  }
};

class UdpServerTest : public ::testing::Test {
 protected:
  explicit UdpServerTest(const Profile& profile = {}) {
    processor.setProfile(profile);
    processor.registerProgram(kPortmap, std::make_unique<portmap::PortMapProgram>());
    processor.registerProgram(kTest, std::make_unique<TestProgram>());
    server.emplace(kLoopback, htons(static_cast<std::uint16_t>(port)), processor);
    server->start(stop);
  }
  RpcClient client() const { return {SOCK_DGRAM, port}; }

  RecordedLog log;
  bool stop = false;
  rpc::RpcServer processor;
  unsigned port = freePort(SOCK_DGRAM);
  std::optional<network::UdpServer> server;
};

TEST_F(UdpServerTest, AnswersEachSender) {
  RpcClient a = client(), b = client();
  a.send(nullCall(1, kPortmap, 2));
  b.send(nullCall(2, 999999, 1));
  EXPECT_EQ(b.receiveDatagram(), accepted(2, 1));
  EXPECT_EQ(a.receiveDatagram(), accepted(1));
}

TEST_F(UdpServerTest, GoesOnAfterGarbage) {
  RpcClient peer = client();
  peer.send({std::byte{1}});
  EXPECT_EQ(peer.receiveDatagram(), accepted(0, kGarbage));
  peer.send(wordBytes({5, 0, 2, kPortmap}));
  EXPECT_EQ(peer.receiveDatagram(), accepted(5, kGarbage));
  peer.send(nullCall(6, kPortmap, 2));
  EXPECT_EQ(peer.receiveDatagram(), accepted(6));
}

TEST_F(UdpServerTest, NeverSendsMoreThanADatagramHolds) {
  RpcClient peer = client();
  for (unsigned xid = 1; xid <= 2; ++xid) {  // the limit holds for a fresh stream, too
    peer.send(nullCall(xid, kTest, 1, 2) + wordBytes({1'000'000}));
    EXPECT_EQ(peer.receiveDatagram().size(), 65'507U);
    peer.send({std::byte{0}});
    EXPECT_EQ(peer.receiveDatagram(), accepted(0, kGarbage));
  }
  peer.send(nullCall(3, kTest, 1, 3));
  peer.send(nullCall(4, kTest, 1));
  EXPECT_EQ(peer.receiveDatagram(), accepted(4));
  EXPECT_THAT(log.takeLines(), Contains(HasSubstr("does not fit a datagram and is dropped")));
}

class ModernUdpServerTest : public UdpServerTest {
 protected:
  ModernUdpServerTest() : UdpServerTest({.isModern = true}) {}
};

TEST_F(ModernUdpServerTest, AFailedRequestEndsNothing) {
  RpcClient peer = client();
  peer.send(nullCall(1, kTest, 1, 4));  // throws
  EXPECT_EQ(peer.receiveDatagram(), accepted(1, 5));
  peer.send(wordBytes({2, 1, 0, 0, 0, 0}));  // a reply: dropped
  peer.send(nullCall(3, kTest, 1));
  EXPECT_EQ(peer.receiveDatagram(), accepted(3));
  {
    // Nobody listens any more when the answer comes.
    RpcClient gone = client();
    gone.send(nullCall(4, kTest, 1));
  }
  peer.send(nullCall(5, kTest, 1));
  EXPECT_EQ(peer.receiveDatagram(), accepted(5));
}

TEST_F(UdpServerTest, StopsWithoutAnError) {
  server->stop();
  const auto lines = log.takeLines();
  EXPECT_THAT(lines, Contains("info Server socket has been closed, stopping."));
  EXPECT_THAT(lines, ::testing::Not(Contains(HasSubstr("err "))));
  server->stop();
}

}  // namespace
}  // namespace nfslib::testing
