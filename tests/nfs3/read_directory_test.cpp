#include "support/nfs3_fixture.h"

#include <cstdint>
#include <limits>
#include <optional>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const FixedOpaque<8> kVerifier{{std::byte{0xC0}, std::byte{0xFF}, std::byte{0xEE}}};
constexpr unsigned kPlenty = 1'000'000;
constexpr unsigned kEmptyPage = 28 + 4 + 88 + 8 + 8;  // a whole reply without entries
constexpr unsigned kSmallEntry = 4 + 8 + 8 + 8;       // an entry whose name has up to four bytes

struct Entry {
  std::uint64_t fileId = 0;
  std::string name;
  std::uint64_t cookie = 0;
};

struct Page {
  std::vector<Entry> entries;
  bool eof = false;
  unsigned size = 0;  // of the whole reply

  std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const Entry& entry : entries) all.push_back(entry.name);
    return all;
  }
};

class ReadDirectoryTest : public Nfs3Test {
 protected:
  using Nfs3Test::Nfs3Test;

  Page page(const std::string& path, std::uint64_t cookie, unsigned count, bool plus = false) {
    const NfsHandle dir = handleOf(path);
    const Reply reply = plus ? call(kReadDirPlus, dir, cookie, kVerifier, 1U, count)
                             : call(kReadDir, dir, cookie, kVerifier, count);
    EXPECT_EQ(reply.acceptStatus, kAccepted);
    constexpr std::size_t kHead = 4 + 88 + 8;
    const memory::const_buffer results(reply.results.data(), reply.results.size());
    EXPECT_EQ(hex({results, kHead}), wire(kOk, attributesOf(path), kVerifier));

    MemoryStream in;
    in.setInputData(results);
    in.skipInput(kHead);
    Page result;
    result.size = reply.size;
    bool follows = false;
    for (in >> follows; follows; in >> follows) {
      Entry entry;
      in >> entry.fileId >> entry.name >> entry.cookie;
      if (plus) in.skipInput(88 + 24);
      result.entries.push_back(std::move(entry));
    }
    in >> result.eof;
    EXPECT_TRUE(in) << "the page of " << path << " is malformed";
    EXPECT_EQ(in.getInputDataSize(), 0U);
    return result;
  }

  // Lists a whole directory page by page; checks that cookies count up and names do not repeat.
  std::uint64_t listAll(const std::string& path, unsigned count, bool plus) {
    std::uint64_t seen = 0;
    for (bool eof = false; !eof;) {
      const Page part = page(path, seen, count, plus);
      for (const Entry& entry : part.entries) EXPECT_EQ(entry.cookie, ++seen);
      eof = part.eof;
      if (part.entries.empty() && !eof) {
        ADD_FAILURE() << "no progress behind cookie " << seen;
        break;
      }
    }
    return seen;
  }

  void fill(const std::string& path, unsigned entries) {
    dir(path);
    for (unsigned i = 0; i < entries; ++i) file(path + "/" + std::to_string(100 + i), "");
  }
};

TEST_F(ReadDirectoryTest, ReadDirIsWhatTheHostLists) {
  fill("/d", 2);
  serve();
  const NfsHandle dir = handleOf("/d");
  log.takeLines();
  const Reply reply = call(kReadDir, dir, std::uint64_t{0}, kVerifier, kPlenty);
  EXPECT_EQ(reply.body(), wire(kOk, attributesOf("/d"), kVerifier) + " 00000001 " +
                              wire(attributes("/d/100").fileId) +
                              " 00000003 31303000 00000000 00000001 00000001 " +
                              wire(attributes("/d/101").fileId) +
                              " 00000003 31303100 00000000 00000002 00000000 00000001");
  EXPECT_THAT(log.takeLines(),
              ::testing::Contains("dbg readDirectory: dirPath [/d] cookie [0] count [1000000]"));
}

TEST_F(ReadDirectoryTest, ReadDirPlusAddsAttributesAndHandle) {
  fill("/d", 1);
  serve();
  const NfsHandle dir = handleOf("/d");
  log.takeLines();
  const Reply reply = call(kReadDirPlus, dir, std::uint64_t{0}, kVerifier, 1U, kPlenty);
  const auto lines = log.takeLines();
  const NfsHandle entry = handleOf("/d/100");
  EXPECT_EQ(reply.body(), wire(kOk, attributesOf("/d"), kVerifier) + " 00000001 " +
                              wire(attributes("/d/100").fileId) +
                              " 00000003 31303000 00000000 00000001 " +
                              wire(attributesOf("/d/100"), true, entry) + " 00000000 00000001");
  EXPECT_THAT(lines,
              ElementsAre("info Nfs procedure: [17]",
                          "dbg readDirectoryPlus: dirPath [/d] cookie [0] dirCount [1] "
                          "maxCount [1000000]",
                          "dbg Create handle for path [/d/100], handle [" + str(entry) + "]"));
  // The handles lead to their objects without a LOOKUP.
  EXPECT_EQ(call(kGetAttr, entry).body(), wire(kOk, fattrOf("/d/100")));
}

TEST_F(ReadDirectoryTest, CookiesAreOrdinalsAndTheLastPageSaysSo) {
  fill("/d", 5);
  serve();
  const Page first = page("/d", 0, kEmptyPage + 3 * kSmallEntry);
  EXPECT_THAT(first.names(), ElementsAre("100", "101", "102"));
  EXPECT_EQ(first.entries.back().cookie, 3U);
  EXPECT_FALSE(first.eof);
  const Page second = page("/d", 3, kEmptyPage + 3 * kSmallEntry);
  EXPECT_THAT(second.names(), ElementsAre("103", "104"));
  EXPECT_EQ(second.entries.back().cookie, 5U);
  EXPECT_TRUE(second.eof);
  EXPECT_EQ(host.takeCalls("Enumerate"), 1U);

  EXPECT_THAT(page("/d", 5, kPlenty).entries, IsEmpty());
  EXPECT_TRUE(page("/d", 5, kPlenty).eof);
  EXPECT_THAT(page("/d", 0, kPlenty).entries, SizeIs(5));
}

TEST_F(ReadDirectoryTest, EmptyDirectoryIsAtItsEnd) {
  dir("/d");
  serve();
  EXPECT_TRUE(page("/d", 0, kPlenty).eof);
  EXPECT_TRUE(page("/d", 0, 0).eof);
}

TEST_F(ReadDirectoryTest, CountBoundsTheWholeReplyToTheByte) {
  fill("/d", 5);
  serve();
  for (const bool plus : {false, true}) {
    const unsigned entrySize = kSmallEntry + (plus ? 88 + 24 : 0);
    for (unsigned count = 0; count < kEmptyPage + 4 * entrySize; ++count) {
      const Page part = page("/d", 0, count, plus);
      const std::size_t fits = count < kEmptyPage ? 0 : (count - kEmptyPage) / entrySize;
      ASSERT_THAT(part.entries, SizeIs(fits)) << "count " << count;
      ASSERT_FALSE(part.eof);
    }
  }
}

TEST_F(ReadDirectoryTest, RepliesEndAtTheDirectoryLimitAndAtTheTransports) {
  fill("/d", 2000);
  serve();
  for (const bool plus : {false, true}) {
    const Page full = page("/d", 0, kPlenty, plus);
    EXPECT_LE(full.size, 32'768U);
    EXPECT_GT(full.size, 32'768U - kSmallEntry - 88 - 24);
    send.outputLimit = 1472;
    EXPECT_LE(page("/d", 0, kPlenty, plus).size, 1472U);
    send.outputLimit = MemoryStream::getBufferSize();
  }
}

TEST_F(ReadDirectoryTest, CookieBeyondTheEndStopsAtTheEnd) {
  fill("/d", 5);
  serve();
  for (const std::uint64_t cookie : {std::uint64_t{6}, std::numeric_limits<std::uint64_t>::max()}) {
    const Page part = page("/d", cookie, kPlenty);
    EXPECT_THAT(part.entries, IsEmpty());
    EXPECT_TRUE(part.eof);
  }
  EXPECT_LE(host.takeCalls("MoveNext"), 10U);
  EXPECT_THAT(page("/d", 4, kPlenty).names(), ElementsAre("104"));
}

TEST_F(ReadDirectoryTest, AnyCookieMayBeAskedAgain) {
  fill("/d", 9);
  serve();
  const unsigned two = kEmptyPage + 2 * kSmallEntry;
  for (const std::uint64_t cookie : {0U, 2U, 4U, 2U, 2U, 6U, 1U, 8U, 0U, 7U}) {
    const Page part = page("/d", cookie, two);
    ASSERT_FALSE(part.entries.empty());
    EXPECT_EQ(part.entries.front().name, std::to_string(100 + cookie));
    EXPECT_EQ(part.eof, cookie + 2 >= 9);
  }
}

TEST_F(ReadDirectoryTest, ChangedDirectoryIsListedAfresh) {
  fill("/d", 5);
  serve(true);
  const unsigned two = kEmptyPage + 2 * kSmallEntry;
  page("/d", 0, two);
  MetaData md = attributes("/d");
  md.modifyTime += 1;
  view->setMetaData(NfsPath("/d"), md);
  EXPECT_THAT(page("/d", 2, two).names(), ElementsAre("102", "103"));
  EXPECT_EQ(host.takeCalls("Enumerate"), 2U);
}

TEST_F(ReadDirectoryTest, ListingsOfOneDirectoryDoNotMoveEachOther) {
  fill("/d", 40);
  serve();
  const unsigned two = kEmptyPage + 2 * kSmallEntry;
  for (std::uint64_t cookie = 0; cookie < 40; cookie += 2) {
    for (int client = 0; client < 2; ++client) {
      EXPECT_THAT(page("/d", cookie, two).names(),
                  ElementsAre(std::to_string(100 + cookie), std::to_string(101 + cookie)));
    }
  }
  EXPECT_EQ(host.takeCalls("Enumerate"), 2U);
  EXPECT_LE(host.takeCalls("MoveNext"), 2 * 40U);
}

class LongListingTest : public ReadDirectoryTest, public ::testing::WithParamInterface<bool> {
 protected:
  LongListingTest() : ReadDirectoryTest(LogLevel::dbg) {}
};

TEST_P(LongListingTest, CostsOneStepAnEntry) {
  constexpr unsigned kEntries = 100'000;
  dir("/d");
  for (unsigned i = 0; i < kEntries; ++i) file("/d/" + std::to_string(kEntries + i), "");
  serve(GetParam());
  for (const bool plus : {false, true}) {
    EXPECT_EQ(listAll("/d", kPlenty, plus), kEntries);
    EXPECT_EQ(host.takeCalls("Enumerate"), 1U);
    EXPECT_LE(host.takeCalls("MoveNext"), kEntries);
  }
}

INSTANTIATE_TEST_SUITE_P(Exports, LongListingTest, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Writable" : "ReadOnly"; });

TEST_F(ReadDirectoryTest, HostThatFailsInTheMidstLeavesNoPartOfAReply) {
  fill("/d", 5);
  serve();
  const NfsHandle dir = handleOf("/d");
  int steps = 0;
  host.onCall = [&](std::string_view name) {
    if (name == "MoveNext" && ++steps == 3) throw INfsException("The disk is gone.");
  };
  for (const unsigned procedure : {kReadDir, kReadDirPlus}) {
    steps = 0;
    const Reply reply = call(procedure, dir, std::uint64_t{0}, kVerifier, kPlenty, kPlenty);
    EXPECT_EQ(reply.acceptStatus, kGarbageArguments);
    EXPECT_EQ(reply.body(), "");
  }
  host.onCall = nullptr;
  EXPECT_THAT(page("/d", 0, kPlenty).entries, SizeIs(5));
}

}  // namespace
}  // namespace nfslib::testing
