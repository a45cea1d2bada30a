#include "fs/directory_positions.h"
#include "support/counting_tree.h"

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;

std::vector<std::string> names(const DirectoryIterator& it) {
  std::vector<std::string> result;
  for (const DirEntry& entry : it) result.push_back(entry.name);
  return result;
}

TEST(DirectoryIterator, WalksOnePassThatItsCopiesShare) {
  CountingTree tree({}, {"/a", "/b", "/c"});
  const auto root = tree.OpenRoot();
  EXPECT_THAT(names(iterate(root)), ElementsAre(".", "..", "a", "b", "c"));

  DirectoryIterator it(root);
  const DirectoryIterator copy = it;
  EXPECT_EQ(it, copy);
  EXPECT_NE(it, DirectoryIterator(root));
  ++ ++ ++it;
  EXPECT_EQ(copy->name, "b");
  EXPECT_THAT(names(copy), ElementsAre("b", "c"));
  EXPECT_FALSE(copy);  // the pass is at its end
  ++it;
  EXPECT_EQ(it, end(it));
  ++it;
  EXPECT_EQ(it, end(it));
}

TEST(DirectoryIterator, WithoutAPassOrEntriesIsAtTheEnd) {
  CountingTree tree;
  tree.listable = false;
  EXPECT_EQ(DirectoryIterator(tree.OpenRoot()), DirectoryIterator());
  EXPECT_FALSE(DirectoryIterator());
}

class DirectoryPositionsTest : public ::testing::Test {
 protected:
  using Dir = std::shared_ptr<Directory>;
  Dir open(const char* name) { return tree.OpenRoot()->OpenSubdir(name); }
  // Stores a position in the midst of the listing, or at its end.
  void store(const Dir& dir, std::uint64_t cookie, bool finished = false) {
    positions.store({dir, false, 7, cookie, finished ? DirectoryIterator() : iterate(dir)});
  }
  // The cookie of the position taken; 999 for none.
  std::uint64_t take(const Dir& dir, std::uint64_t cookie, std::uint32_t time = 7) {
    const auto position = positions.take(dir, false, time, cookie);
    return position ? position->cookie : 999;
  }

  CountingTree tree{{"/a", "/b"}};
  DirectoryPositions positions{3};
};

TEST_F(DirectoryPositionsTest, TakesTheNearestNotBehindTheCookie) {
  const Dir a = open("a");
  store(a, 10);
  store(a, 20);
  EXPECT_EQ(take(a, 9), 999U);
  EXPECT_EQ(take(a, 15), 10U);
  EXPECT_EQ(take(a, 15), 999U);  // taken is taken
  EXPECT_EQ(take(open("b"), 20), 999U);
  EXPECT_EQ(take(a, 20, 8), 999U);  // the directory has changed
  EXPECT_EQ(take(a, 20), 20U);
}

TEST_F(DirectoryPositionsTest, TheRootIsOneDirectoryWhateverObjectStandsForIt) {
  positions.store({tree.OpenRoot(), true, 7, 5, {}});
  EXPECT_FALSE(positions.take(tree.OpenRoot(), false, 7, 5));
  EXPECT_TRUE(positions.take(tree.OpenRoot(), true, 7, 5));
}

TEST_F(DirectoryPositionsTest, FinishedListingsMakeRoomFirstThenTheOldest) {
  const Dir a = open("a");
  store(a, 1);
  store(a, 2, true);
  store(a, 3);
  store(a, 4);
  EXPECT_EQ(take(a, 2), 1U);
  store(a, 1);
  store(a, 5);  // 3 is the oldest now
  EXPECT_EQ(take(a, 3), 1U);
  EXPECT_EQ(take(a, 9), 5U);
  EXPECT_EQ(take(a, 9), 4U);
}

}  // namespace
}  // namespace nfslib::testing
