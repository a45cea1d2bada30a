#include "fs/replacement_cache.h"

#include "fs/metadata_cache.h"

#include <memory>
#include <string>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::Eq;
using ::testing::Optional;
using Cache = utility::replacement_cache<std::string, int>;

TEST(ReplacementCache, AFullCacheDropsWhatWasUsedLongestAgo) {
  Cache cache(2);
  EXPECT_EQ(cache.set("a", 1), std::nullopt);
  EXPECT_EQ(cache.set("b", 2), std::nullopt);
  EXPECT_THAT(cache.set("c", 3), Optional(1));
  EXPECT_EQ(cache.find("a"), std::nullopt);
  EXPECT_THAT(cache.find("b"), Optional(2));  // now newer than c
  EXPECT_THAT(cache.set("d", 4), Optional(3));
  EXPECT_THAT(cache.find("b"), Optional(2));
  EXPECT_EQ(cache.size(), 2U);
}

TEST(ReplacementCache, AStoredKeyIsReplacedAndNewest) {
  Cache cache(2);
  cache.set("a", 1);
  cache.set("b", 2);
  EXPECT_THAT(cache.set("a", 10), Optional(1));
  EXPECT_EQ(cache.size(), 2U);
  EXPECT_THAT(cache.set("c", 3), Optional(2));
  EXPECT_THAT(cache.find("a"), Optional(10));
}

TEST(ReplacementCache, ErasingFreesASlot) {
  Cache cache(2);
  cache.set("a", 1);
  cache.set("b", 2);
  EXPECT_EQ(cache.erase("x"), std::nullopt);
  EXPECT_THAT(cache.erase("a"), Optional(1));
  EXPECT_EQ(cache.set("c", 3), std::nullopt);
  EXPECT_THAT(cache.find("b"), Optional(2));

  Cache smallest(0);  // holds one all the same
  smallest.set("a", 1);
  EXPECT_THAT(smallest.find("a"), Optional(1));
}

TEST(ReplacementCache, KeepsItsObjectsAlive) {
  utility::replacement_cache<int, std::shared_ptr<int>> cache(1);
  const std::weak_ptr<int> first = *[&] {
    auto object = std::make_shared<int>(5);
    cache.set(1, object);
    return cache.find(1);
  }();
  EXPECT_FALSE(first.expired());
  cache.set(2, nullptr);
  EXPECT_TRUE(first.expired());
}

TEST(MetaDataCache, AnswersFromBeforeAChangeAreNotKept) {
  MetaDataCache cache(8);
  const NfsPath a("/a");
  const NfsPath b("/b");
  MetaData former;
  MetaData latter;
  latter.size = 1;

  auto before = cache.changes();
  cache.setUnlessChanged(a, former, before);
  EXPECT_THAT(cache.find(a), Optional(Eq(former)));

  before = cache.changes();
  cache.erase(a);
  cache.setUnlessChanged(a, former, before);
  EXPECT_EQ(cache.find(a), std::nullopt);

  before = cache.changes();
  cache.set(a, latter);
  cache.setUnlessChanged(a, former, before);
  EXPECT_THAT(cache.find(a), Optional(Eq(latter)));
  cache.setUnlessChanged(b, former, cache.changes());
  EXPECT_EQ(cache.size(), 2U);
}

}  // namespace
}  // namespace nfslib::testing
