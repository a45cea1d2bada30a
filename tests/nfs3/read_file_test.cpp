#include "support/nfs3_fixture.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>

namespace nfslib::testing {
namespace {

constexpr unsigned kMost = 786'432;
constexpr std::uint64_t kFarthest = std::numeric_limits<std::uint64_t>::max();

std::string pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 23);
  return text;
}

class ReadFileTest : public Nfs3Test {
 protected:
  ReadFileTest() {
    file("/small", content);
    file("/large", large);
    file("/empty", "");
  }

  // The reply that carries `data`.
  std::string dataReply(const std::string& path, const std::string& data, bool eof) {
    return wire(kOk, attributesOf(path), static_cast<unsigned>(data.size()), eof, data);
  }

  const std::string content = pattern(10);
  const std::string large = pattern(2'000'000);
};

struct ReadCase {
  const char* name;
  std::uint64_t offset;
  unsigned count, length;
  bool eof;
};

class SmallFileTest : public ReadFileTest, public ::testing::WithParamInterface<ReadCase> {};

TEST_P(SmallFileTest, GivesWhatThereIs) {
  const ReadCase& c = GetParam();
  serve();
  const std::string data = c.length == 0 ? "" : content.substr(c.offset, c.length);
  const Reply reply = call(kRead, handleOf("/small"), c.offset, c.count);
  EXPECT_EQ(reply.body(), dataReply("/small", data, c.eof));
  // A host is asked only for bytes that are there, and not at all when there are none.
  EXPECT_EQ(host.takeCalls("Read"), c.length == 0 ? 0U : 1U);
}

INSTANTIATE_TEST_SUITE_P(Ranges, SmallFileTest,
                         ::testing::ValuesIn(std::to_array<ReadCase>({
                             {"All", 0, 10, 10, true},
                             {"MoreThanAll", 0, 100, 10, true},
                             {"Front", 0, 7, 7, false},
                             {"AllButTheLastByte", 0, 9, 9, false},
                             {"Middle", 3, 4, 4, false},
                             {"UpToTheEnd", 6, 4, 4, true},
                             {"AcrossTheEnd", 9, 4, 1, true},
                             {"AtTheEnd", 10, 4, 0, true},
                             {"BehindTheEnd", 11, 4, 0, true},
                             {"OffsetPlusCountWraps", kFarthest, 4, 0, true},
                             {"OffsetPlusCountWrapsToTheFront", kFarthest - 2, 5, 0, true},
                             {"Nothing", 0, 0, 0, false},
                             {"NothingAtTheEnd", 10, 0, 0, true},
                         })),
                         [](const auto& param) { return param.param.name; });

TEST_F(ReadFileTest, LogsItsArguments) {
  serve();
  const NfsHandle file = handleOf("/small");
  log.takeLines();
  call(kRead, file, std::uint64_t{3}, 4U);
  EXPECT_THAT(log.takeLines(),
              ::testing::Contains("dbg readFile: path [/small], offset [3], count[4]"));
}

TEST_F(ReadFileTest, TransferLimitCutsTheCount) {
  serve();
  EXPECT_EQ(call(kRead, handleOf("/large"), std::uint64_t{0}, 1'000'000U).body(),
            dataReply("/large", large.substr(0, kMost), false));
  EXPECT_EQ(call(kRead, handleOf("/large"), std::uint64_t{1}, 0xFFFFFFFFU).body(),
            dataReply("/large", large.substr(1, kMost), false));
  EXPECT_EQ(call(kRead, handleOf("/large"), std::uint64_t{2'000'000 - kMost}, kMost).body(),
            dataReply("/large", large.substr(2'000'000 - kMost), true));
}

TEST_F(ReadFileTest, ReplyThatWouldNotFitIsAShortRead) {
  constexpr unsigned kHead = 28 + 4 + 88 + 12;  // what stands before the data
  serve();
  for (unsigned room = 0; room <= 16; ++room) {
    send.outputLimit = kHead + room;
    const unsigned length = std::min(room / 4 * 4, 10U);
    const Reply reply = call(kRead, handleOf("/small"), std::uint64_t{0}, 10U);
    EXPECT_EQ(reply.body(), dataReply("/small", content.substr(0, length), length == 10))
        << "room " << room;
    EXPECT_LE(reply.size, send.outputLimit);
  }
}

TEST_F(ReadFileTest, BytesThatTheHostLeavesAloneAreZero) {
  host.readsNothing = true;
  serve();
  EXPECT_EQ(call(kRead, handleOf("/small"), std::uint64_t{0}, 100U).body(),
            dataReply("/small", std::string(10, '\0'), true));
}

TEST_F(ReadFileTest, HostThatFailsLeavesNoPartOfAReply) {
  serve();
  const NfsHandle file = handleOf("/small");
  host.onCall = [](std::string_view name) {
    if (name == "Read") throw INfsException("The disk is gone.");
  };
  log.takeLines();
  const Reply reply = call(kRead, file, std::uint64_t{0}, 10U);
  EXPECT_EQ(reply.acceptStatus, kGarbageArguments);
  EXPECT_EQ(reply.body(), "");
  EXPECT_THAT(log.takeLines(), ::testing::Contains("err NFS server failed.: The disk is gone."));
}

}  // namespace
}  // namespace nfslib::testing
