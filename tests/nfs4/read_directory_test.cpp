#include "support/counting_tree.h"
#include "support/nfs4_fixture.h"

#include <limits>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr unsigned kPlenty = 1'000'000;
constexpr std::uint64_t kVerifier = 0xC0FFEE;
const Bitmap kFileId{1U << 20U};
const Bitmap kHandleAndId{1U << 19U | 1U << 20U};

struct Entry {
  std::uint64_t cookie = 0;
  std::string name;
  std::string attributes;  // fattr4 as it came
};
struct Page {
  std::vector<Entry> entries;
  bool eof = false;
  std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const Entry& entry : entries) all.push_back(entry.name);
    return all;
  }
};

class ReadDirectoryTest : public BothVersionsTest {
 protected:
  using BothVersionsTest::BothVersionsTest;

  static Compound listing(std::uint64_t cookie, unsigned count, const Bitmap& bitmap = {}) {
    return Compound().add(op::kReadDir, cookie, kVerifier, 0U, count, bitmap);
  }
  Page page(Compound place, std::uint64_t cookie, unsigned count, const Bitmap& bitmap = {}) {
    const Answer answer = run(place.add(listing(cookie, count, bitmap)));
    EXPECT_EQ(answer.status, kOk);
    MemoryStream in;
    const auto& bytes = answer.results.back().bytes;
    in.setInputData({bytes.data(), bytes.size()});
    std::uint64_t verifier = 0;
    bool follows = false;
    Page result;
    in >> verifier;
    EXPECT_EQ(verifier, kVerifier);
    for (in >> follows; follows; in >> follows) {
      Entry entry;
      Bitmap present;
      in >> entry.cookie >> entry.name >> present;
      const auto values = in.readOpaque();
      entry.attributes = wire(present, values);
      result.entries.push_back(std::move(entry));
    }
    in >> result.eof;
    return result;
  }
  Page page(const std::string& path, std::uint64_t cookie, unsigned count) {
    return page(at(path), cookie, count);
  }
  void fill(const std::string& path, unsigned entries) {
    dir(path);
    for (unsigned i = 0; i < entries; ++i) file(path + "/" + std::to_string(100 + i), "");
  }
  // The whole reply without an entry, and what an entry with a short name and no attributes adds:
  // RPC head, COMPOUND with tag, SEQUENCE, PUTFH, READDIR.
  unsigned emptyPage() const { return 28 + 16 + (minorVersion == 0 ? 0 : 44) + 8 + 16 + 8; }
  static constexpr unsigned kEntry = 4 + 8 + 8 + 8;
};
INSTANTIATE_TEST_SUITE_P(Both, ReadDirectoryTest, ::testing::Values(0U, 1U), minorVersionName);

TEST_P(ReadDirectoryTest, EntriesAreWhatTheHostLists) {
  fill("/d", 2);
  serve();
  const std::string first = wire(attributes("/d/100").fileId);
  const std::string second = wire(attributes("/d/101").fileId);
  EXPECT_EQ(run(at("/d").add(listing(0, kPlenty, kFileId))).body(),
            "00000000 00c0ffee"
            " 00000001 00000000 00000001 00000003 31303000 00000001 00100000 00000008 " +
                first +
                " 00000001 00000000 00000002 00000003 31303100 00000001 00100000 00000008 " +
                second + " 00000000 00000001");
  // The handles lead to their objects without a LOOKUP.
  const Page all = page(at("/d"), 0, kPlenty, kHandleAndId);
  const NfsHandle handle = NfsFileSystem::createHandle(root, attributes("/d/101"));
  EXPECT_EQ(all.entries.at(1).attributes,
            wire(fattr4(kHandleAndId, handle, attributes("/d/101").fileId)));
  EXPECT_EQ(run(Compound().put(handle).getAttr(kFileId)).body(),
            wire(fattr4(kFileId, attributes("/d/101").fileId)));
  EXPECT_EQ(status(at("/d/100").add(listing(0, kPlenty))), kNotDirectory);
}

TEST_P(ReadDirectoryTest, MaxCountBoundsTheReplyToTheByte) {
  fill("/d", 5);
  dir("/empty");
  serve();
  EXPECT_THAT(page("/empty", 0, 0).entries, IsEmpty());
  EXPECT_TRUE(page("/empty", 0, 0).eof);
  for (unsigned count = emptyPage() - 4; count < emptyPage() + 4 * kEntry; count += 2) {
    const Page part = page("/d", 0, count);
    ASSERT_THAT(part.entries, SizeIs(count < emptyPage() ? 0 : (count - emptyPage()) / kEntry))
        << "count " << count;
    ASSERT_FALSE(part.eof);
  }
  EXPECT_THAT(page("/d", 2, emptyPage() + 3 * kEntry).names(), ElementsAre("102", "103", "104"));
  EXPECT_TRUE(page("/d", 2, emptyPage() + 3 * kEntry).eof);
}

TEST_P(ReadDirectoryTest, AnyCookieMayBeAskedAtAnyTime) {
  fill("/d", 9);
  serve();
  for (const std::uint64_t cookie : {0U, 2U, 4U, 2U, 2U, 6U, 1U, 8U, 0U, 7U}) {
    const Page part = page("/d", cookie, emptyPage() + 2 * kEntry);
    ASSERT_FALSE(part.entries.empty());
    EXPECT_EQ(part.entries.front().name, std::to_string(100 + cookie));
    EXPECT_EQ(part.entries.front().cookie, cookie + 1);
    EXPECT_EQ(part.eof, cookie + 2 >= 9);
  }
  host.takeCalls("MoveNext");
  for (const std::uint64_t cookie :
       {std::uint64_t{9}, std::uint64_t{10}, std::numeric_limits<std::uint64_t>::max()}) {
    EXPECT_THAT(page("/d", cookie, kPlenty).entries, IsEmpty());
    EXPECT_TRUE(page("/d", cookie, kPlenty).eof);
  }
  EXPECT_LE(host.takeCalls("MoveNext"), 60U);
}

TEST_P(ReadDirectoryTest, ListingsSideBySideDoNotMoveEachOther) {
  fill("/d", 40);
  serve();
  ClientSession other = makeSession("other");
  for (std::uint64_t cookie = 0; cookie < 40; cookie += 2) {
    for (int client = 0; client < 3; ++client) {
      // Two of version 4 and one of version 3, whose cookies are others where a host lists ".".
      EXPECT_THAT(page("/d", cookie, emptyPage() + 2 * kEntry).names(),
                  ElementsAre(std::to_string(100 + cookie), std::to_string(101 + cookie)));
      std::swap(own, other);
      if (client == 1) call(kReadDir, handleOf("/d"), cookie, kVerifier, 28U + 4 + 88 + 16 + 56);
    }
    if (cookie % 4 != 0) std::swap(own, other);
  }
  EXPECT_LE(host.takeCalls("Enumerate"), 4U);
  EXPECT_LE(host.takeCalls("MoveNext"), 4 * 40U + 4);
}

TEST_P(ReadDirectoryTest, SelfAndParentAreNeverListed) {
  CountingTree dots({"/m"}, {"/m/a", "/m/b", "/m/c"});
  service.exportFileSystem(NfsPath("/dots"), dots, {});
  serve();
  const Compound place = Compound().add(op::kPutRootFh).lookup("dots").lookup("m");
  for (unsigned fits = 1; fits < 5; ++fits) {
    std::vector<std::string> seen;
    for (bool eof = false; !eof;) {
      ASSERT_LE(seen.size(), 3U);
      const Page part = page(place, seen.size(), emptyPage() + 16 + fits * kEntry);
      for (const Entry& entry : part.entries) {
        seen.push_back(entry.name);
        EXPECT_EQ(entry.cookie, seen.size());
      }
      eof = part.eof;
    }
    EXPECT_THAT(seen, ElementsAre("a", "b", "c"));
  }
}

TEST_P(ReadDirectoryTest, PseudoRootListsTheExports) {
  CountingTree one({"/x"});
  CountingTree two({"/x"});
  service.exportFileSystem(NfsPath("/zoo"), one, {});
  service.exportFileSystem(NfsPath("/alpha"), two, {});
  serve();
  const Compound top = Compound().add(op::kPutRootFh);
  const Page all = page(top, 0, kPlenty, kHandleAndId);
  EXPECT_THAT(all.names(), ElementsAre("alpha", "export", "zoo"));
  EXPECT_TRUE(all.eof);
  EXPECT_EQ(all.entries[1].attributes, wire(fattr4(kHandleAndId, root, attributes("/").fileId)));
  std::vector<std::string> seen;
  for (std::uint64_t cookie = 0; cookie < 3; ++cookie) {
    const Page part = page(top, cookie, emptyPage() + kEntry + 4);
    ASSERT_THAT(part.entries, SizeIs(1));
    EXPECT_EQ(part.entries[0].cookie, cookie + 1);
    EXPECT_EQ(part.eof, cookie == 2);
    seen.push_back(part.entries[0].name);
  }
  EXPECT_EQ(seen, all.names());
}

TEST_P(ReadDirectoryTest, LongListingCostsOneStepAnEntry) {
  constexpr unsigned kEntries = 100'000;
  dir("/d");
  const auto parent = directoryAt(NfsPath("/d"));
  for (unsigned i = 0; i < kEntries; ++i) parent->CreateFile(std::to_string(kEntries + i));
  const bool isWritable = minorVersion == 1;
  serve(isWritable);
  std::uint64_t seen = 0;
  for (bool eof = false; !eof;) {
    const Page part = page(at("/d"), seen, 100'000, kFileId);
    ASSERT_FALSE(part.entries.empty());
    ASSERT_LE(part.entries.size(), 32'768U / 44);
    for (const Entry& entry : part.entries) {
      ASSERT_EQ(entry.cookie, ++seen);
      ASSERT_EQ(entry.name, std::to_string(kEntries + seen - 1));
    }
    eof = part.eof;
  }
  EXPECT_EQ(seen, kEntries);
  EXPECT_EQ(host.takeCalls("Enumerate"), 1U);
  EXPECT_LE(host.takeCalls("MoveNext"), kEntries);
}

class FullDirectoryTest : public ReadDirectoryTest {
 protected:
  FullDirectoryTest() : ReadDirectoryTest(16U << 10U) {
    dir("/d");
    file("/d/f", "");
  }
};
INSTANTIATE_TEST_SUITE_P(Both, FullDirectoryTest, ::testing::Values(0U, 1U), minorVersionName);

// The directory is held from the failed write on; what takes its place is listed all the same.
TEST_P(FullDirectoryTest, RemovedAndMadeAnewIsListedAnew) {
  serve(true);
  EXPECT_EQ(status(at("/d/f").write(0, std::string(60'000, 'x'))), kNoSpace);
  EXPECT_THAT(page("/d", 0, kPlenty).names(), ElementsAre("f"));
  EXPECT_EQ(status(at("/d").add(op::kRemove, "f"s)), kOk);
  EXPECT_EQ(status(at("/").add(op::kRemove, "d"s)), kOk);
  EXPECT_EQ(status(at("/").add(op::kCreate, 2U, "d"s, kNoAttributes)), kOk);
  EXPECT_THAT(page("/d", 0, kPlenty).names(), IsEmpty());
  EXPECT_EQ(status(at("/d").open(guarded(), byName("g"))), kOk);
  EXPECT_THAT(page("/d", 0, kPlenty).names(), ElementsAre("g"));
}

}  // namespace
}  // namespace nfslib::testing
