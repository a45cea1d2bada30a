#include "common/log.h"

#include "support/recorded_log.h"

#include <cstdarg>
#include <stdexcept>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct FormatCase {
  const char* format;
  std::vector<std::string> args;
  const char* expected;
};

TEST(StrFormat, FillsPlaceholdersAndLeavesTheRest) {
  const FormatCase cases[] = {
      {"a [%1] b [%2]", {"x", "y"}, "a [x] b [y]"},
      {"[%1][%1]", {"x"}, "[x][x]"},
      {"[%2] before [%1]", {"x", "y"}, "[y] before [x]"},
      {"%12", {"x"}, "%12"},  // twelve, not one and a digit
      {"[%3]", {"x", "y"}, "[%3]"},
      {"[%0]", {"x"}, "[%0]"},
      {"[%-1]", {"x"}, "[%-1]"},
      {"[%+1]", {"x"}, "[x]"},
      {"[% 1]", {"x"}, "[x]"},
      {"[%+-1]", {"x"}, "[%+-1]"},
      {"[%007]", {"x"}, "[%7]"},
      {"100%", {"x"}, "100%"},
      {"%", {}, "%"},
      {"%  ", {"x"}, "%  "},
      {"%d", {"x"}, "%d"},
      {"%%1", {"x"}, "%x"},
      {"%1", {"%1 %2"}, "%1 %2"},  // arguments are not looked at again
      {"", {"x"}, ""},
      {"plain", {}, "plain"},
  };
  for (const FormatCase& c : cases) {
    EXPECT_EQ(utility::str_format(c.format, c.args), c.expected) << c.format;
  }
  EXPECT_EQ(utility::str_format("%1"), "%1");
  EXPECT_EQ(message("at %1"), "at %1");
  EXPECT_EQ(message("[%1] [%2] [%3]", NfsPath("a/b"), NfsHandle{1, 2, 3}, -5),
            "[/a/b] [1:2:3] [-5]");
}

std::string formatted(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = utility::str_format(std::string(format), args);
  va_end(args);
  return text;
}

TEST(StrFormat, PrintfFormIsCutAtItsBuffer) {
  EXPECT_EQ(formatted("%s-%d", "a", 5), "a-5");
  EXPECT_EQ(formatted("%s", std::string(5000, 'x').c_str()), std::string(4094, 'x'));
}

TEST(Logger, LinesGoToTheSinkInstalledAndToNobodyElse) {
  log().err("nobody hears [%1]", "this");
  {
    RecordedLog sink;
    log().dbg("d [%1]", NfsPath("/p"));
    log().info("i [%1]", 7U);
    log().warn("w");
    log().err("e [%1]", std::string("%1"));
    std::runtime_error cause("cause");
    log().errWith(cause, "failed [%1]", "x");
    EXPECT_THAT(sink.takeLines(), ElementsAre("dbg d [/p]", "info i [7]", "warn w", "err e [%1]",
                                              "err failed [x]: cause"));
    const auto held = CNfsLibLogger::getInstance().getImpl();
    CNfsLibLogger::getInstance().setImpl(nullptr);  // taken as "no sink"
    log().err("gone");
    held->info("a replaced sink stays usable");
    EXPECT_THAT(sink.takeLines(), ElementsAre("info a replaced sink stays usable"));
  }
  log().err("nobody again");
}

// Counts how often it is turned into text.
struct Counted {
  int* conversions;
  explicit operator std::string() const { return std::to_string(++*conversions); }
};

TEST(Logger, LinesOfADiscardedLevelAreNotPutTogether) {
  RecordedLog sink({LogLevel::dbg, LogLevel::warn});
  const auto section = CNfsLibLogger::getInstance().getImpl();
  int conversions = 0;
  section->dbg("d [%1]", Counted{&conversions});
  section->warn("w [%1]", Counted{&conversions});
  log().dbg("d [%1]", 1);
  log().warn("w [%1]", 1);
  EXPECT_EQ(conversions, 0);
  EXPECT_THAT(sink.takeLines(), IsEmpty());
  section->info("i [%1]", Counted{&conversions});
  section->err("e [%1]", Counted{&conversions});
  EXPECT_THAT(sink.takeLines(), ElementsAre("info i [1]", "err e [2]"));
}

TEST(Logger, HostsHaveTheFormattingForms) {
  RecordedLog sink;
  const auto section = CNfsLibLogger::getInstance().getImpl();
  std::runtime_error e("cause");
  section->info("[%1] [%2]", NfsPath("a"), "b");
  section->warn("[%1]", "a", e);
  section->warn("[%1] [%2]", "a", "b", e);
  section->err("[%1] [%2] [%3]", "a", "b", "c", e);
  section->err("[%1] [%2] [%3] [%4]", "a", "b", "c", "d", e);
  section->info(5, "number");
  EXPECT_THAT(sink.takeLines(),
              ElementsAre("info [/a] [b]", "warn [a]: cause", "warn [a] [b]: cause",
                          "err [a] [b] [c]: cause", "err [a] [b] [c] [d]: cause", "info 5 number"));
}

}  // namespace
}  // namespace nfslib::testing
