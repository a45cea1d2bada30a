#include "fs/handle_map.h"

#include <string>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

class HandleMapTest : public ::testing::Test {
 protected:
  // The path of the object, "" when it is not known.
  std::string at(std::uint64_t id) const {
    const auto path = map.find(id);
    return path ? path->str() : "";
  }
  void see(std::uint64_t id, const char* path, std::size_t links = 1) {
    map.remember(id, NfsPath(path), links);
  }

  HandleMap map;
};

TEST_F(HandleMapTest, TheNewestNameCountsAndOlderOnesStandIn) {
  see(7, "/a", 3);
  see(7, "/b", 3);
  see(7, "/c", 3);
  see(7, "/b", 3);
  EXPECT_EQ(at(7), "/b");
  map.forget(NfsPath("/b"));
  EXPECT_EQ(at(7), "/c");
  map.forget(NfsPath("/c"));
  EXPECT_EQ(at(7), "/a");
  map.forget(NfsPath("/a"));
  EXPECT_EQ(at(7), "");
  EXPECT_EQ(map.size(), 0U);
}

TEST_F(HandleMapTest, NoMoreNamesAreKeptThanTheObjectHas) {
  see(7, "/a", 2);
  see(7, "/b", 2);
  see(7, "/c", 2);  // somebody else must have taken one away
  map.forget(NfsPath("/c"));
  EXPECT_EQ(at(7), "/b");
  see(7, "/d", 1);
  map.forget(NfsPath("/d"));
  EXPECT_EQ(at(7), "");
  see(7, "/e", 0);  // a host that does not count
  EXPECT_EQ(at(7), "/e");
}

TEST_F(HandleMapTest, AnObjectWithTheSameLowHalfTakesThePlace) {
  see(0x1'0000'0007, "/a", 2);
  see(0x1'0000'0007, "/b", 2);
  see(7, "/c");
  EXPECT_EQ(at(0x1'0000'0007), "/c");
  map.forget(NfsPath("/c"));
  EXPECT_EQ(at(7), "");
}

TEST_F(HandleMapTest, MovesTheSubtreeAndNothingBesideIt) {
  see(1, "/d");
  see(2, "/d/f");
  see(3, "/d/s/f");
  see(4, "/d!");  // stands between "/d" and "/d/f" in the order of bytes
  see(5, "/d0");  // just behind what is below "/d"
  see(6, "/x/old");
  see(7, "/x/old/f");
  map.move(NfsPath("/d"), NfsPath("/x/old"));
  EXPECT_EQ(at(1), "/x/old");
  EXPECT_EQ(at(2), "/x/old/f");
  EXPECT_EQ(at(3), "/x/old/s/f");
  EXPECT_EQ(at(4), "/d!");
  EXPECT_EQ(at(5), "/d0");
  EXPECT_EQ(at(6), "");
  EXPECT_EQ(at(7), "");

  map.move(NfsPath("/x/old"), NfsPath("/x/old"));
  EXPECT_EQ(at(3), "/x/old/s/f");
  map.forget(NfsPath("/x"));
  EXPECT_EQ(at(1) + at(2) + at(3), "");
  EXPECT_EQ(map.size(), 2U);
}

// Two paths of one object, one of which is moved over the other.
TEST_F(HandleMapTest, MovesOneNameOverAnother) {
  see(7, "/a", 2);
  see(7, "/b", 2);
  map.move(NfsPath("/a"), NfsPath("/b"));
  EXPECT_EQ(at(7), "/b");
  map.forget(NfsPath("/b"));
  EXPECT_EQ(at(7), "");
}

// News of a rename by others come late: what calls have seen meanwhile counts.
TEST_F(HandleMapTest, FollowsAnObjectAndLeavesItsSuccessorAlone) {
  const NfsPath from("/d"), to("/x/e");
  see(1, "/d");
  see(2, "/d/f");
  see(3, "/d!");
  map.follow(9, from, to);  // nobody knows it
  EXPECT_EQ(at(2), "/d/f");
  map.follow(1, from, to);
  EXPECT_EQ(at(1), "/x/e");
  EXPECT_EQ(at(2), "/x/e/f");
  EXPECT_EQ(at(3), "/d!");

  // It was seen at its new place already; what was below it was not.
  see(1, "/d");
  EXPECT_EQ(at(2), "/x/e/f");
  map.follow(1, to, from);
  EXPECT_EQ(at(1), "/d");
  EXPECT_EQ(at(2), "/d/f");

  // Another one is at the old place by now.
  see(4, "/d");
  see(5, "/d/new");
  map.follow(1, from, to);
  EXPECT_EQ(at(1), "/x/e");
  EXPECT_EQ(at(4), "/d");
  EXPECT_EQ(at(5), "/d/new");
  EXPECT_THAT(map.seenAt(from), ::testing::ElementsAre(4));
}

}  // namespace
}  // namespace nfslib::testing
