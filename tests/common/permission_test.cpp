#include "common/permission.h"

#include "support/recorded_log.h"

#include <algorithm>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using utility::CProtocolUtils;

constexpr unsigned kAll = 0x3F;
constexpr unsigned kReading = 0x01;
constexpr unsigned kSearching = 0x02 | 0x20;
constexpr unsigned kChanging = 0x04 | 0x08 | 0x10;

// The object of every case belongs to user 1000 and group 500.
struct Case {
  const char* name;
  unsigned uid, gid;
  std::vector<unsigned> groups;
  unsigned mode;
  unsigned granted;
};

class PermissionTest : public ::testing::TestWithParam<Case> {};

TEST_P(PermissionTest, GrantsExactly) {
  const Case& c = GetParam();
  rpc::AuthOpaque caller;
  caller.uid = c.uid;
  caller.gid = c.gid;
  caller.groupCount = static_cast<unsigned>(c.groups.size());
  std::copy_n(c.groups.begin(), std::min(c.groups.size(), caller.groups.size()),
              caller.groups.begin());
  MetaData md;
  md.uid = 1000;
  md.gid = 500;
  md.mode = static_cast<std::uint16_t>(c.mode);

  unsigned granted = 0;
  for (unsigned bit = 1; bit <= kAll; bit <<= 1U) {
    CProtocolUtils::checkPermission(NfsPath("/f"), md, caller, kAll, bit, granted);
  }
  EXPECT_EQ(granted, c.granted);
}

const Case kCases[] = {
    {"RootMayAllButRunWhatNobodyRuns", 0, 0, {}, 0644, kAll & ~0x20U},
    {"RootMayDoAllWithAnyExecuteBit", 0, 0, {}, 0001, kAll},
    {"OwnerReads", 1000, 9, {}, 0400, kReading},
    {"OwnerChanges", 1000, 9, {}, 0200, kChanging},
    {"OwnerSearches", 1000, 9, {}, 0100, kSearching},
    {"OthersRead", 7, 9, {}, 0004, kReading},
    {"OthersChange", 7, 9, {}, 0002, kChanging},
    {"OthersSearch", 7, 9, {}, 0001, kSearching},
    {"OwnersBitsAreNotForOthers", 7, 9, {}, 0700, 0},
    {"OwnerGetsWhatOthersHave", 1000, 9, {}, 0007, kAll},
    {"PrimaryGroupReads", 7, 500, {}, 0040, kReading},
    {"PrimaryGroupChanges", 7, 500, {}, 0020, kChanging},
    {"PrimaryGroupSearches", 7, 500, {}, 0010, kSearching},
    {"FifthGroupCounts", 7, 9, {1, 2, 3, 4, 500}, 0640, kReading},
    {"TenthGroupCounts", 7, 9, {1, 2, 3, 4, 5, 6, 7, 8, 9, 500}, 0040, kReading},
    {"MoreGroupsThanAreKept", 7, 9, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 500}, 0040, 0},
    {"OtherGroupsDoNot", 7, 9, {1, 2, 3}, 0070, 0},
    {"OwnerOutsideTheGroup", 1000, 9, {}, 0070, 0},
};
INSTANTIATE_TEST_SUITE_P(Modes, PermissionTest, ::testing::ValuesIn(kCases),
                         [](const auto& c) { return c.param.name; });

TEST(Permission, RefusalsAreLoggedByName) {
  RecordedLog log;
  MetaData md;
  md.mode = 0644;
  const rpc::AuthOpaque root;
  unsigned granted = 0x100;
  const auto check = [&](unsigned requested, unsigned bit) {
    CProtocolUtils::checkPermission(NfsPath("/d/f"), md, root, requested, bit, granted);
    return log.takeLines();
  };
  EXPECT_THAT(check(0x3F, 0x04), IsEmpty());
  EXPECT_EQ(granted, 0x104U);
  EXPECT_THAT(check(0x1F, 0x20), IsEmpty());  // not asked for
  EXPECT_THAT(
      check(0x20, 0x20),
      ElementsAre("info The requested [EXECUTE] permission to [/d/f] has not been granted"));
  EXPECT_THAT(
      check(0x40, 0x40),
      ElementsAre("info The requested [UNKNOWN] permission to [/d/f] has not been granted"));
  EXPECT_EQ(granted, 0x104U);

  rpc::AuthOpaque stranger;
  stranger.uid = 7;
  md.mode = 0;
  unsigned none = 0;
  for (unsigned bit = 1; bit <= kAll; bit <<= 1U) {
    CProtocolUtils::checkPermission(NfsPath("/"), md, stranger, kAll, bit, none);
  }
  const auto line = [](const std::string& right) {
    return "info The requested [" + right + "] permission to [/] has not been granted";
  };
  EXPECT_THAT(log.takeLines(), ElementsAre(line("READ"), line("LOOKUP"), line("MODIFY"),
                                           line("EXTEND"), line("DELETE"), line("EXECUTE")));
  EXPECT_EQ(none, 0U);
}

}  // namespace
}  // namespace nfslib::testing
