#include "network/tcp_server.h"

#include <nfslib/file_system.h>

#include "network/stop_flag.h"
#include "rpc/portmap_program.h"
#include "rpc/rpc_server.h"
#include "support/recorded_log.h"
#include "support/resident_memory.h"
#include "support/rpc_client.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NFSLIB_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define NFSLIB_TEST_SANITIZED 1
#endif
#endif

namespace nfslib::testing {
namespace {

using namespace std::chrono_literals;
using rpc::RpcProgramResult;

constexpr unsigned kPortmap = 100000;
constexpr unsigned kTest = 200000;
constexpr unsigned kGarbage = 4;

// A file of the system with the bytes 0, 1, 2 and so on.
struct CountingFile : IDescriptorFile {
  explicit CountingFile(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::byte>(i % 251);
    if (std::fwrite(bytes.data(), 1, size, file) != size || std::fflush(file) != 0) {
      throw std::runtime_error("cannot write a temporary file");
    }
  }
  ~CountingFile() override { std::fclose(file); }
  CountingFile(const CountingFile&) = delete;
  CountingFile& operator=(const CountingFile&) = delete;
  int ReadDescriptor() const noexcept override { return failed ? -1 : fileno(file); }
  void DescriptorFailed() noexcept override { failed = true; }

  std::FILE* file = std::tmpfile();
  std::atomic<bool> failed{false};
};
constexpr unsigned kFileSize = 600'000;

// NULL (0); ECHO (1): sends back an opaque; BLOB (2): a reply of as many bytes as asked; THROW (3);
// FILE (4): a word, as many bytes of the file as asked from an offset, and a word.
class TestProgram : public rpc::RpcProgram {
 public:
  RpcProgramResult run(MemoryStream& stream, const rpc::RpcProgramParameters& parameters,
                       const rpc::AuthOpaque&) override {
    if (parameters.procedure == 1) {
      std::vector<std::byte> bytes;
      stream >> bytes;
      if (!stream) return RpcProgramResult::GarbageArguments;
      stream << bytes;
    } else if (parameters.procedure == 2) {
      unsigned size = 0;
      stream >> size;
      stream.writeZeros(size);
    } else if (parameters.procedure == 3) {
      throw std::runtime_error("the host is upset");
    } else if (parameters.procedure == 4) {
      unsigned offset = 0, length = 0;
      stream >> offset >> length;
      stream << 1U;
      if (stream.takesFile()) {
        ++fromFile;
        stream.writeFromFile(file, offset, length);
      } else {
        const auto room = stream.writeZeros(length);
        EXPECT_GE(pread(file->ReadDescriptor(), room.data(), room.size(), offset), 0);
      }
      stream << 2U;
    }
    return RpcProgramResult::Success;
  }

  const std::shared_ptr<CountingFile> file = std::make_shared<CountingFile>(kFileSize);
  static inline std::atomic<int> fromFile{0};  // replies that the transport filled
};

class TcpServerTest : public ::testing::Test {
 protected:
  explicit TcpServerTest(const Profile& profile = {}) {
    processor.setProfile(profile);
    processor.allowParallelRequests();
    processor.registerProgram(kPortmap, std::make_unique<portmap::PortMapProgram>());
    auto program = std::make_unique<TestProgram>();
    file = program->file;
    processor.registerProgram(kTest, std::move(program));
    server.emplace(kLoopback, htons(static_cast<std::uint16_t>(port)), processor);
    server->start(stop);
  }
  RpcClient client() const { return {SOCK_STREAM, port}; }
  // Waits for a line of the log that contains `text`, doing `meanwhile` again and again.
  bool logged(
      const std::string& text, const std::function<void()>& meanwhile = [] {}) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline) {
      meanwhile();
      for (auto& line : log.takeLines()) lines.push_back(line);
      for (const auto& line : lines) {
        if (line.find(text) != line.npos) return true;
      }
      std::this_thread::yield();
    }
    return false;
  }

  RecordedLog log;
  std::vector<std::string> lines;
  bool stop = false;
  std::shared_ptr<CountingFile> file;
  rpc::RpcServer processor;
  unsigned port = freePort();
  std::optional<network::TcpServer> server;
};

TEST_F(TcpServerTest, AnswersCallsHoweverTheyAreCutIntoSegments) {
  RpcClient peer = client();
  Bytes bytes;
  for (unsigned xid = 1; xid <= 3; ++xid) bytes = bytes + record(nullCall(xid, kPortmap, 2));
  for (const std::byte byte : bytes) peer.send({byte});
  for (unsigned xid = 1; xid <= 3; ++xid) EXPECT_EQ(peer.receiveRecord(), accepted(xid));
}

TEST_F(TcpServerTest, AnswersCallsThatComeTogether) {
  RpcClient peer = client();
  Bytes bytes;
  constexpr unsigned kCalls = 5000;  // more than is read ahead, or kept back, at once
  for (unsigned xid = 0; xid < kCalls; ++xid) bytes = bytes + record(nullCall(xid, kPortmap, 2));
  std::thread sender([&] { peer.send(bytes); });
  for (unsigned xid = 0; xid < kCalls; ++xid) ASSERT_EQ(peer.receiveRecord(), accepted(xid)) << xid;
  sender.join();

  // Several calls in one record, with the first one whole in front of one that is cut off.
  const Bytes two = nullCall(7, kPortmap, 2) + nullCall(8, kPortmap, 2);
  peer.send(record(two + wordBytes({9, 0})));
  EXPECT_EQ(peer.receiveRecord(), accepted(7));
  EXPECT_EQ(peer.receiveRecord(), accepted(8));
  EXPECT_EQ(peer.receiveRecord(), accepted(9, kGarbage));
  peer.send(record(nullCall(10, kPortmap, 2)));
  EXPECT_EQ(peer.receiveRecord(), accepted(10)) << "one bad call costs nobody else";
}

class ModernTcpServerTest : public TcpServerTest {
 protected:
  ModernTcpServerTest() : TcpServerTest({.isModern = true}) {}
  static Bytes fragment(const Bytes& bytes) {
    return wordBytes({static_cast<unsigned>(bytes.size())}) + bytes;
  }
};

TEST_F(ModernTcpServerTest, JoinsTheFragmentsOfARecord) {
  RpcClient peer = client();
  Bytes big(900'000, std::byte{0x5A});
  const Bytes call = nullCall(1, kTest, 1, 1) + wordBytes({900'000}) + big;
  const auto part = [&](std::size_t from, std::size_t to) {
    return Bytes(call.begin() + static_cast<std::ptrdiff_t>(from),
                 call.begin() + static_cast<std::ptrdiff_t>(to));
  };
  // The head of the call itself is cut, and the last fragment is empty.
  peer.send(fragment(part(0, 3)) + fragment(part(3, 40)) + fragment(part(40, call.size())) +
            record({}));
  peer.send(record(nullCall(2, kTest, 1)));
  EXPECT_EQ(peer.receiveRecord(), accepted(1) + wordBytes({900'000}) + big);
  EXPECT_EQ(peer.receiveRecord(), accepted(2));
  // A call is a record: what is behind it is not another one.
  peer.send(record(nullCall(3, kTest, 1) + nullCall(4, kTest, 1)));
  peer.send(record(nullCall(5, kTest, 1)));
  EXPECT_EQ(peer.receiveRecord(), accepted(3));
  EXPECT_EQ(peer.receiveRecord(), accepted(5));
}

TEST_F(ModernTcpServerTest, FragmentsBeyondTheLongestRecordAreSkippedWithinReason) {
  RpcClient peer = client();
  const Bytes blank(700'000);
  peer.send(fragment(nullCall(1, kTest, 1)) + fragment(blank) + record(blank));
  peer.send(record(nullCall(2, kTest, 1)));
  EXPECT_EQ(peer.receiveRecord(), accepted(1, kGarbage));
  EXPECT_EQ(peer.receiveRecord(), accepted(2));
  peer.send(fragment(nullCall(3, kTest, 1)) + wordBytes({0}));
  EXPECT_EQ(peer.receiveRecord(), std::nullopt) << "an empty fragment that is not the last";
  RpcClient endless = client();
  endless.send(fragment(nullCall(4, kTest, 1)) + wordBytes({0x7FFFFFFF}));
  EXPECT_EQ(endless.receiveRecord(), std::nullopt);
}

TEST_F(TcpServerTest, AFailedCallEndsItsRecordButNotTheConnection) {
  RpcClient peer = client();
  peer.send(record(nullCall(1, kTest, 1, 9) + nullCall(2, 999999, 1) + nullCall(3, kTest, 1)));
  peer.send(record(nullCall(4, kPortmap, 2, 99)));
  peer.send(record(nullCall(5, kTest, 1)));
  EXPECT_EQ(peer.receiveRecord(), accepted(1));
  EXPECT_EQ(peer.receiveRecord(), accepted(2, 1));
  EXPECT_EQ(peer.receiveRecord(), accepted(4, 3));
  EXPECT_EQ(peer.receiveRecord(), accepted(5));
}

TEST_F(TcpServerTest, SendsLargeRepliesWhole) {
  RpcClient peer = client();
  const Bytes blob = wordBytes({1'000'000});
  for (unsigned xid = 1; xid <= 8; ++xid) peer.send(record(nullCall(xid, kTest, 1, 2) + blob));
  for (unsigned xid = 1; xid <= 8; ++xid) {
    const auto reply = peer.receiveRecord();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply->size(), 1'000'024U);
    EXPECT_EQ(Bytes(reply->begin(), reply->begin() + 24), accepted(xid));
  }
  // And takes large calls: an echo of nearly the longest record.
  Bytes big(1'000'000, std::byte{0x5A});
  peer.send(record(nullCall(9, kTest, 1, 1) + wordBytes({1'000'000}) + big));
  EXPECT_EQ(peer.receiveRecord(), accepted(9) + wordBytes({1'000'000}) + big);
}

TEST_F(TcpServerTest, SendsPartsOfFilesInTheirPlace) {
  RpcClient peer = client();
  const auto expected = [](unsigned xid, unsigned offset, unsigned length) {
    Bytes bytes = accepted(xid) + wordBytes({1});
    for (unsigned i = offset; i < offset + length; ++i) {
      bytes.push_back(i < kFileSize ? static_cast<std::byte>(i % 251) : std::byte{0});
    }
    return bytes + wordBytes({2});
  };
  // Alone; the second time past the end, which reads as zeros.
  TestProgram::fromFile = 0;
  peer.send(record(nullCall(1, kTest, 1, 4) + wordBytes({7, 400'000})));
  EXPECT_EQ(peer.receiveRecord(), expected(1, 7, 400'000));
  peer.send(record(nullCall(1, kTest, 1, 4) + wordBytes({500'001, 200'000})));
  EXPECT_EQ(peer.receiveRecord(), expected(1, 500'001, 200'000));
  EXPECT_EQ(TestProgram::fromFile, 2);
  // In a row with others.
  peer.send(record(nullCall(1, kTest, 1)) +
            record(nullCall(2, kTest, 1, 4) + wordBytes({7, 400'000})) +
            record(nullCall(3, kTest, 1)) +
            record(nullCall(4, kTest, 1, 4) + wordBytes({500'000, 200'000})));
  EXPECT_EQ(peer.receiveRecord(), accepted(1));
  EXPECT_EQ(peer.receiveRecord(), expected(2, 7, 400'000));
  EXPECT_EQ(peer.receiveRecord(), accepted(3));
  EXPECT_EQ(peer.receiveRecord(), expected(4, 500'000, 200'000));

  // A file that cannot be read after all costs the connection, since the reply has begun, and knows
  // it.
  const int useless = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(useless, file->ReadDescriptor());
  peer.send(record(nullCall(5, kTest, 1, 4) + wordBytes({0, 1000})));
  EXPECT_NE(peer.receiveRecord(), expected(5, 0, 1000));
  EXPECT_TRUE(logged("Failed to process request. Exception: [Failed to send data."));
  EXPECT_TRUE(file->failed);
  close(useless);
}

TEST_F(TcpServerTest, SkipsARecordThatIsTooLong) {
  RpcClient peer = client();
  Bytes call = nullCall(1, kTest, 1, 1);
  call.resize(1'048'577);
  peer.send(record(call));
  EXPECT_EQ(peer.receiveRecord(), accepted(1, kGarbage));
  call.resize(16 * 1'048'576);
  peer.send(record(call));
  EXPECT_EQ(peer.receiveRecord(), accepted(1, kGarbage));
  peer.send(record(nullCall(2, kTest, 1)));
  EXPECT_EQ(peer.receiveRecord(), accepted(2));
  EXPECT_TRUE(logged("warn A record of [1048577] bytes"));

  peer.send(wordBytes({0x80000000U | (16U * 1'048'576U + 1U)}));
  EXPECT_EQ(peer.receiveRecord(), std::nullopt);
}

TEST_F(TcpServerTest, ClosesOnWhatIsNoRecord) {
  const std::vector<Bytes> endings{
      wordBytes({0x80000000}),           // an empty record
      {std::byte{0x80}, std::byte{0}},   // half a mark
      wordBytes({0x80000028, 1, 0, 2}),  // part of a record
      wordBytes({0x80100001, 1, 0, 2}),  // part of one that is too long
  };
  for (const Bytes& ending : endings) {
    RpcClient peer = client();
    peer.send(record(nullCall(1, kTest, 1)) + ending);
    peer.halfClose();
    EXPECT_EQ(peer.receiveRecord(), accepted(1));
    EXPECT_EQ(peer.receiveRecord(), std::nullopt);
  }
  EXPECT_TRUE(
      logged("Fragment data is partially available. Expected size [40], received size [12]"));
}

TEST_F(TcpServerTest, AnExceptionEndsItsConnectionAfterTheEarlierReplies) {
  RpcClient peer = client();
  RpcClient other = client();
  peer.send(record(nullCall(1, kTest, 1)) + record(nullCall(2, kTest, 1, 3)) +
            record(nullCall(3, kTest, 1)));
  EXPECT_EQ(peer.receiveRecord(), accepted(1));
  EXPECT_EQ(peer.receiveRecord(), std::nullopt);
  EXPECT_TRUE(logged("Failed to process request. Exception: [the host is upset]"));
  other.send(record(nullCall(4, kTest, 1)));
  EXPECT_EQ(other.receiveRecord(), accepted(4));
}

TEST_F(TcpServerTest, ReapsFinishedConnectionsWhenTheNextOneComes) {
  for (int i = 0; i < 2; ++i) {
    RpcClient peer = client();
    peer.send(record(nullCall(1, kTest, 1)));
    peer.receiveRecord();
    peer.halfClose();
    EXPECT_EQ(peer.receiveRecord(), std::nullopt);
  }
  // The handlers are done a moment after their peers see the end.
  EXPECT_TRUE(logged("Removing inactive connection [127.0.0.1:", [&] { client(); }));
}

TEST_F(TcpServerTest, StopsAtOnceWhateverThePeersDo) {
  RpcClient idle = client();
  RpcClient deaf = client();  // asks for megabytes and takes none of them
  RpcClient talker = client();
  RpcClient deafToo = client();
  for (unsigned xid = 0; xid < 64; ++xid) {
    deaf.send(record(nullCall(xid, kTest, 1, 2) + wordBytes({1'000'000})));
    deafToo.send(record(nullCall(xid, kTest, 1, 4) + wordBytes({0, kFileSize})));
  }
  std::atomic<bool> done{false};
  std::thread chatter([&] {
    try {
      while (!done) {
        talker.send(record(nullCall(1, kTest, 1)));
        if (!talker.receiveRecord()) return;
      }
    } catch (const std::exception&) {  // the server went away
    }
  });
  std::this_thread::sleep_for(50ms);
  const auto start = std::chrono::steady_clock::now();
  network::setFlag(stop, true);
  server->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  done = true;
  chatter.join();
  EXPECT_TRUE(logged("Server socket has been closed, stopping."));
  EXPECT_EQ(idle.receiveRecord(), std::nullopt);
  EXPECT_THROW(client(), std::runtime_error);
  server->stop();  // once more does no harm
}

TEST_F(TcpServerTest, SurvivesRunningOutOfDescriptors) {
  RpcClient before = client();
  before.send(record(nullCall(1, kTest, 1)));
  EXPECT_EQ(before.receiveRecord(), accepted(1));

  rlimit old{};
  getrlimit(RLIMIT_NOFILE, &old);
  rlimit tight = old;
  // Our end of the next connection has a number already; there is none left for the server's.
  network::SocketDescriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
  tight.rlim_cur = static_cast<rlim_t>(static_cast<int>(socket)) + 1;
  setrlimit(RLIMIT_NOFILE, &tight);
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(static_cast<std::uint16_t>(port));
  target.sin_addr.s_addr = kLoopback;
  ASSERT_EQ(connect(socket, reinterpret_cast<sockaddr*>(&target), sizeof target), 0);
  EXPECT_TRUE(logged("Cannot accept a connection at the moment."));
  setrlimit(RLIMIT_NOFILE, &old);

  RpcClient after = client();
  after.send(record(nullCall(2, kTest, 1)));
  EXPECT_EQ(after.receiveRecord(), accepted(2));
  before.send(record(nullCall(3, kTest, 1)));
  EXPECT_EQ(before.receiveRecord(), accepted(3));
}

#ifndef NFSLIB_TEST_SANITIZED
TEST_F(TcpServerTest, AnIdleConnectionCostsLittleMemory) {
  constexpr std::size_t kConnections = 1000;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 2 * kConnections + 100) GTEST_SKIP() << "too few descriptors";
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);

  std::vector<RpcClient> peers;
  peers.reserve(kConnections);
  const std::size_t before = residentBytes();
  for (std::size_t i = 0; i < kConnections; ++i) {
    peers.emplace_back(SOCK_STREAM, port);
    peers.back().send(record(nullCall(1, kTest, 1)));
    ASSERT_EQ(peers.back().receiveRecord(), accepted(1));
  }
  const std::size_t each = (residentBytes() - before) / kConnections;
  RecordProperty("bytes_per_connection", static_cast<int>(each));
  EXPECT_LE(each, 64U * 1024U);
}
#endif

}  // namespace
}  // namespace nfslib::testing
