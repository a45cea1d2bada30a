#include <nfslib/nfs_path.h>

#include <sstream>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Form {
  const char *text, *path, *parent, *name;
};

TEST(NfsPath, IsCanonicalFromConstructionOn) {
  const Form forms[] = {
      {"", "/", "/", ""},
      {"/", "/", "/", ""},
      {"//", "/", "/", ""},
      {".", "/", "/", ""},
      {"..", "/", "/", ""},
      {"/../a", "/a", "/", "a"},
      {"/a/../..", "/", "/", ""},
      {"/a/../../b", "/b", "/", "b"},
      {"a", "/a", "/", "a"},
      {"a/b", "/a/b", "/a", "b"},
      {"//a///b/", "/a/b", "/a", "b"},
      {"/a/./b/../c", "/a/c", "/a", "c"},
      {"/a/.b/..c/...", "/a/.b/..c/...", "/a/.b/..c", "..."},
      {"/ /\xff", "/ /\xff", "/ ", "\xff"},
  };
  for (const Form& form : forms) {
    const NfsPath path{std::string(form.text)};
    EXPECT_EQ(path.str(), form.path) << form.text;
    EXPECT_EQ(path.getParentPath().str(), form.parent) << form.text;
    EXPECT_EQ(path.getFileName(), form.name) << form.text;
    EXPECT_EQ(path.isRootPath(), std::string(form.path) == "/") << form.text;
    EXPECT_EQ(NfsPath(path.nodes()), path) << form.text;
    EXPECT_EQ(std::hash<NfsPath>{}(path), std::hash<std::string>{}(form.path));
  }
  EXPECT_THAT(NfsPath("/a/bc").nodes(), ElementsAre("a", "bc"));
  EXPECT_THAT(NfsPath("/").nodes(), IsEmpty());
}

TEST(NfsPath, Composes) {
  const struct {
    const char *dir, *name, *path;
  } cases[] = {
      {"/", "x", "/x"},        {"/a", "b", "/a/b"},  {"/a", "b/c", "/a/b/c"},
      {"/a", "..", "/"},       {"/a/b", "..", "/a"}, {"/a", "", "/a"},
      {"/", "", "/"},          {"/a", ".", "/a"},    {"/a", "/b", "/a/b"},
      {"/a", "//b", "/a/b"},   {"/", "..", "/"},     {"/a", "../../b", "/b"},
      {"/a", "..b", "/a/..b"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ((NfsPath(c.dir) / c.name).str(), c.path) << c.dir << " and " << c.name;
  }
  EXPECT_EQ(NfsPath::addEndingDelimIfNeeded(""), "/");
  EXPECT_EQ(NfsPath::addEndingDelimIfNeeded("/x"), "/x/");
  EXPECT_EQ(NfsPath::addEndingDelimIfNeeded("/x/"), "/x/");
  EXPECT_EQ(NfsPath::remoteFrontDelimIfExists("//x"), "/x");
  EXPECT_EQ(NfsPath::remoteFrontDelimIfExists("x/"), "x/");
  EXPECT_EQ(NfsPath::remoteFrontDelimIfExists(""), "");
}

TEST(NfsPath, ComparesAndPrintsItsText) {
  EXPECT_TRUE(NfsPath("/a") < NfsPath("/a/b"));
  EXPECT_TRUE(NfsPath("/a") < NfsPath("/b"));
  EXPECT_TRUE(NfsPath("/a/b") < NfsPath("/a0"));
  EXPECT_TRUE(NfsPath("/\x7f") < NfsPath("/\x80"));
  EXPECT_FALSE(NfsPath("/a") < NfsPath("a/"));
  EXPECT_EQ(NfsPath("/a"), NfsPath("a/"));
  EXPECT_NE(NfsPath("/a"), NfsPath("/A"));
  std::ostringstream out;
  out << NfsPath("a//b");
  EXPECT_EQ(out.str(), "/a/b");
}

}  // namespace
}  // namespace nfslib::testing
