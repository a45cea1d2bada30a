#include "fs/directory_listings.h"

#include <nfslib/exception.h>
#include <nfslib/hosts/memory_file_system.h>

#include "support/observed_host.h"

#include <algorithm>
#include <limits>
#include <set>
#include <thread>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Entry {
  std::string name;
  std::uint64_t cookie = 0;
  std::uint64_t size = 0;
};
struct Page {
  std::vector<Entry> entries;
  bool eof = false;

  std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const Entry& entry : entries) all.push_back(entry.name);
    return all;
  }
  std::uint64_t last() const { return entries.back().cookie; }
};

class DirectoryListingsTest : public ::testing::Test {
 protected:
  static constexpr std::uint64_t kId = 7;

  explicit DirectoryListingsTest(const DirectoryListings::Limits& limits = {}) : listings(limits) {}

  void fill(unsigned entries) {
    for (unsigned i = 0; i < entries; ++i) tree.OpenRoot()->CreateFile(std::to_string(100 + i));
  }
  Page page(std::uint64_t cookie, std::size_t most, std::uint64_t id = kId) {
    Page result;
    result.eof = listings.list(host.OpenRoot(), id, cookie,
                               [&](const std::string& name, const MetaData& md, std::uint64_t at) {
                                 if (result.entries.size() == most) return true;
                                 result.entries.push_back({name, at, md.size});
                                 return false;
                               });
    return result;
  }

  hosts::MemoryFileSystem tree{64U << 20U};
  ObservedHost host{tree};
  DirectoryListings listings;
};

TEST_F(DirectoryListingsTest, GoesOnBehindAnyEntryWithoutAWalk) {
  fill(200);
  const Page all = page(0, 1000);
  EXPECT_TRUE(all.eof);
  ASSERT_EQ(all.entries.size(), 200U);
  EXPECT_EQ(all.entries[0].cookie, 3U);
  for (std::size_t i = 200; i-- > 0;) {
    const Page part = page(all.entries[i].cookie, 2);
    std::vector<std::string> expected;
    for (std::size_t j = i + 1; j < std::min<std::size_t>(i + 3, 200); ++j) {
      expected.push_back(all.entries[j].name);
    }
    ASSERT_EQ(part.names(), expected) << i;
    ASSERT_EQ(part.eof, i + 3 >= 200) << i;
    if (part.entries.empty()) continue;
    EXPECT_EQ(part.entries[0].cookie, all.entries[i].cookie + 1);
  }
  EXPECT_EQ(host.takeCalls("Enumerate"), 1U);
  EXPECT_EQ(host.takeCalls("MoveNext"), 200U);
  EXPECT_THAT(page(1, 1).names(), ElementsAre("100"));
  EXPECT_THAT(page(2, 1).names(), ElementsAre("100"));
}

TEST_F(DirectoryListingsTest, WhatIsRemovedWhileItIsListedHidesNothing) {
  fill(100);
  std::set<std::string> seen;
  std::uint64_t cookie = 0;
  for (bool eof = false; !eof;) {
    const Page part = page(cookie, 7);
    eof = part.eof;
    for (const Entry& entry : part.entries) {
      EXPECT_TRUE(seen.insert(entry.name).second) << entry.name;
      tree.OpenRoot()->RemoveFile(entry.name);
    }
    if (!part.entries.empty()) cookie = part.last();
  }
  EXPECT_EQ(seen.size(), 100U);
  EXPECT_THAT(page(0, 10).names(), IsEmpty());
}

// Also the entry that the page before had no room for.
TEST_F(DirectoryListingsTest, ShowsEntriesAsTheyAreNow) {
  fill(6);
  const Page first = page(0, 3);
  const auto root = tree.OpenRoot();
  root->OpenFile("101")->Write(0, "new", 3);
  root->OpenFile("103")->Write(0, "newer", 5);
  root->RemoveFile("102");
  root->RemoveFile("104");
  const Page again = page(first.entries[0].cookie, 10);
  EXPECT_THAT(again.names(), ElementsAre("101", "103", "105"));
  EXPECT_EQ(again.entries[0].size, 3U);
  EXPECT_EQ(again.entries[1].size, 5U);
  EXPECT_TRUE(again.eof);
}

TEST_F(DirectoryListingsTest, ListingsSideBySideDoNotMoveEachOther) {
  fill(40);
  std::array<std::uint64_t, 3> cookies{};
  for (unsigned i = 0; i < 20; ++i) {
    for (std::uint64_t& cookie : cookies) {
      const Page part = page(cookie, 2);
      ASSERT_THAT(part.names(),
                  ElementsAre(std::to_string(100 + 2 * i), std::to_string(101 + 2 * i)));
      cookie = part.last();
    }
  }
  EXPECT_EQ(host.takeCalls("Enumerate"), cookies.size());
}

TEST_F(DirectoryListingsTest, OneListingMayBeUsedByManyAtOnce) {
  fill(300);
  const std::uint64_t start = page(0, 1).last();
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; ++i) {
    clients.emplace_back([&] {
      std::uint64_t cookie = start;
      std::size_t seen = 1;
      for (bool eof = false; !eof;) {
        const Page part = page(cookie, 5);
        eof = part.eof;
        seen += part.entries.size();
        if (!part.entries.empty()) cookie = part.last();
      }
      EXPECT_EQ(seen, 300U);
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(host.takeCalls("Enumerate"), 1U);
}

TEST_F(DirectoryListingsTest, ForgedCookiesEndOrStartAfresh) {
  fill(5);
  page(0, 2);
  const std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  for (const std::uint64_t cookie :
       {std::uint64_t{8}, most, most >> 22U, std::uint64_t{1} << 45U}) {
    const Page part = page(cookie, 10);
    EXPECT_TRUE(part.eof);
    EXPECT_EQ(part.entries.size(), cookie == std::uint64_t{1} << 45U ? 5U : 0U) << cookie;
  }
  // The number of a listing of another directory.
  EXPECT_THAT(page(4, 1, kId + 1).names(), ElementsAre("102"));
  EXPECT_THAT(page(4, 1).names(), ElementsAre("102"));
}

TEST_F(DirectoryListingsTest, AfterAFailureOfTheHostTheListingGoesOn) {
  fill(10);
  const std::uint64_t cookie = page(0, 3).last();
  host.onCall = [](std::string_view name) {
    if (name == "MoveNext") throw INfsException("The disk is gone.");
  };
  EXPECT_THROW(page(cookie, 3), INfsException);
  host.onCall = nullptr;
  EXPECT_THAT(page(cookie, 3).names(), ElementsAre("103", "104", "105"));
}

class ForgetfulListingsTest : public DirectoryListingsTest {
 protected:
  ForgetfulListingsTest()
      : DirectoryListingsTest({.openPasses = 2, .completeListings = 2, .bytes = 4000}) {}
};

TEST_F(ForgetfulListingsTest, WhatWasForgottenIsWalkedAnewWithTheSameCookies) {
  fill(1000);  // more names than the limit
  std::uint64_t cookie = 0;
  std::vector<std::uint64_t> cookies;
  for (unsigned seen = 0; seen < 1000;) {
    const Page part = page(cookie, 10);
    ASSERT_EQ(part.entries.size(), 10U);
    for (const Entry& entry : part.entries) {
      ASSERT_EQ(entry.name, std::to_string(100 + seen++));
      cookies.push_back(entry.cookie);
    }
    cookie = part.last();
    if (seen % 250 == 0) {
      for (int i = 0; i < 3; ++i) page(0, 1);  // others take its place
    }
  }
  EXPECT_TRUE(page(cookie, 1).eof);
  EXPECT_THAT(page(cookies[4], 1).names(), ElementsAre("105"));
  EXPECT_EQ(page(cookies[4], 1).last(), cookies[5]);
  EXPECT_LE(host.takeCalls("Enumerate"), 1 + 4 * 3 + 4 + 3U);
}

TEST(RememberedNamesTest, AMillionTakeLittleMoreThanTheirBytes) {
  constexpr std::uint64_t kNames = 1'000'000;
  RememberedNames names;
  for (std::uint64_t i = 0; i < kNames; ++i) names.add(std::to_string(kNames + i), 64U << 20U);
  EXPECT_LT(names.bytes(), kNames * (7 + 2 + 3));
  for (std::uint64_t i = 0; i < kNames; i += 997)
    ASSERT_EQ(names.at(i), std::to_string(kNames + i));

  RememberedNames few;
  for (std::uint64_t i = 0; i < kNames; ++i) few.add(std::to_string(kNames + i), 10'000);
  EXPECT_LT(few.bytes(), 12'000U);
  EXPECT_FALSE(few.has(0));
  EXPECT_FALSE(few.has(kNames));
  EXPECT_EQ(few.at(kNames - 1), std::to_string(2 * kNames - 1));
}

}  // namespace
}  // namespace nfslib::testing
