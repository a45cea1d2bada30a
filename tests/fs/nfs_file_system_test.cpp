#include "fs/nfs_file_system.h"

#include "support/counting_tree.h"
#include "support/failure_of.h"
#include "support/recorded_log.h"

#include <stdexcept>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

NfsMountSpec spec(bool writable, std::uint32_t maxOpenFiles = 8) {
  NfsMountSpec result;
  result.writeEnabled = writable;
  result.maxOpenFiles = maxOpenFiles;
  return result;
}

class NfsFileSystemTest : public ::testing::Test {
 protected:
  MetaData sized(std::uint64_t size) {
    MetaData md;
    md.size = size;
    return md;
  }

  CountingTree tree{{"/a", "/a/b", "/a/b/c"}, {"/f", "/a/f", "/a/b/f"}};
  NfsFileSystem view{tree, spec(true)};
  RecordedLog log;
};

TEST_F(NfsFileSystemTest, DirectoriesAreOpenedFromTheNearestPointKnown) {
  const NfsPath b("/a/b");
  view.openDirectory(b);
  EXPECT_THAT(tree.takeCalls(),
              ElementsAre("OpenRoot", "OpenSubdir /a", "OpenSubdir /a/b", "GetMetaData /a/b"));
  view.openDirectory(b);
  view.getMetaData(b);
  EXPECT_THAT(tree.takeCalls(), IsEmpty());
  view.openDirectory(b / "c");  // the parent is open
  EXPECT_THAT(tree.takeCalls(), ElementsAre("OpenRoot", "OpenSubdir /a/b/c", "GetMetaData /a/b/c"));
  view.openDirectory(NfsPath("/a"));  // passed on the way, but not kept
  EXPECT_THAT(tree.takeCalls(), ElementsAre("OpenRoot", "OpenSubdir /a", "GetMetaData /a"));
  for (int i = 0; i < 2; ++i) {
    view.openDirectory(NfsPath("/"));
    EXPECT_THAT(tree.takeCalls(), ElementsAre("OpenRoot"));
  }
}

TEST_F(NfsFileSystemTest, AFailedOpenIsPassedOnAndCachesNothing) {
  EXPECT_THROW(view.openDirectory(NfsPath("/a/x")), INfsException);
  tree.onCall = [](const std::string& call) {
    if (call == "GetMetaData /a/b") throw std::domain_error("disk");
  };
  EXPECT_THROW(view.openDirectory(NfsPath("/a/b")), std::domain_error);
  tree.onCall = nullptr;
  tree.takeCalls();
  view.openDirectory(NfsPath("/a/b"));
  EXPECT_THAT(tree.takeCalls(), Contains("OpenSubdir /a/b"));
}

TEST_F(NfsFileSystemTest, AttributesAreAskedForOnce) {
  for (const char* path : {"/", "/f", "/a/b/f"}) {
    const MetaData md = view.getMetaData(NfsPath(path));
    EXPECT_NE(md.fileId, 0U);
    EXPECT_THAT(tree.takeCalls(), Not(IsEmpty()));
    EXPECT_EQ(view.getMetaData(NfsPath(path)), md);
    EXPECT_TRUE(view.pathExists(NfsPath(path)));
    EXPECT_THAT(tree.takeCalls(), IsEmpty());
  }
}

TEST_F(NfsFileSystemTest, WhatCannotBeReachedHasNoAttributes) {
  EXPECT_EQ(view.findMetaData(NfsPath("/x")), std::nullopt);
  EXPECT_THAT(log.takeLines(),
              ElementsAre("dbg Failed to find metadata in cache. Error: [There is no /x]."));
  EXPECT_FALSE(view.pathExists(NfsPath("/x/y")));
  EXPECT_EQ(failureOf([&] { view.getMetaData(NfsPath("/x")); }), "Cannot get metadata for path.");
  EXPECT_THAT(log.takeLines(), Contains("warn Cannot get metadata for path [/x]."));

  tree.onCall = [](const std::string&) { throw std::domain_error("gone"); };
  EXPECT_TRUE(view.pathExists(NfsPath("/")));
  EXPECT_EQ(view.findMetaData(NfsPath("/")), std::nullopt);
}

TEST_F(NfsFileSystemTest, SettingAttributesReachesTheObjectByItsType) {
  tree.add("/link", FileType::SymbolicLink);
  tree.add("/pipe", FileType::NamedPipe);
  const struct {
    const char *path, *open;
  } cases[] = {
      {"/a", "OpenSubdir /a"}, {"/link", "OpenSymlink /link"}, {"/pipe", "OpenFile /pipe"}};
  for (const auto& c : cases) {
    view.getMetaData(NfsPath(c.path));
    tree.takeCalls();
    view.setMetaData(NfsPath(c.path), sized(5));
    EXPECT_THAT(tree.takeCalls(), ::testing::IsSupersetOf(
                                      {std::string(c.open), std::string("SetMetaData ") + c.path}));
    EXPECT_EQ(view.getMetaData(NfsPath(c.path)), sized(5));
    EXPECT_THAT(tree.takeCalls(), IsEmpty());  // kept as set, not asked for again
  }
  view.setMetaData(NfsPath("/"), sized(6));
  EXPECT_EQ(view.getMetaData(NfsPath("/")), sized(6));
  EXPECT_THAT(tree.takeCalls(), ElementsAre("OpenRoot", "SetMetaData /"));
  EXPECT_THROW(view.setMetaData(NfsPath("/x"), {}), INfsException);
}

// The host's answer may be the one from before a change that was made while it was given.
TEST_F(NfsFileSystemTest, AnswersOvertakenByAChangeAreNotKept) {
  const auto during = [&](const std::string& when, std::function<void()> change) {
    tree.onCall = [&, when, change](const std::string& call) {
      if (call != when) return;
      tree.onCall = nullptr;
      change();
    };
  };
  const NfsPath f("/a/f");
  during("GetEntryByName /a/f", [&] { view.openDirectory(NfsPath("/"))->CreateFile("new"); });
  view.getMetaData(f);
  tree.takeCalls();
  view.getMetaData(f);
  EXPECT_THAT(tree.takeCalls(), ElementsAre("GetEntryByName /a/f"));

  during("OpenSubdir /a/b", [&] { view.remove("f", NfsPath("/")); });
  view.openDirectory(NfsPath("/a/b"));
  tree.takeCalls();
  view.openDirectory(NfsPath("/a/b"));
  EXPECT_THAT(tree.takeCalls(), Contains("OpenSubdir /a/b"));

  during("OpenFile /a/f", [&] { view.remove("new", NfsPath("/")); });
  view.openFile(f);
  tree.takeCalls();
  view.openFile(f);
  EXPECT_THAT(tree.takeCalls(), Contains("OpenFile /a/f"));
}

TEST_F(NfsFileSystemTest, FilesStayOpenUpToTwiceTheNumberAskedFor) {
  NfsFileSystem small(tree, spec(false, 1));
  const NfsPath paths[] = {NfsPath("/f"), NfsPath("/a/f"), NfsPath("/a/b/f")};
  small.openFile(paths[0]);
  EXPECT_EQ(small.openFile(paths[1]), small.openFile(paths[1]));
  tree.takeCalls();
  small.openFile(paths[2]);
  EXPECT_THAT(tree.takeCalls(), Contains("closed /f"));
  const auto held = small.openFile(paths[1]);
  small.openFile(paths[0]);  // makes room for itself by dropping the third
  EXPECT_THAT(tree.takeCalls(), Contains("closed /a/b/f"));
  small.closeFile(paths[1]);
  EXPECT_THAT(tree.takeCalls(), IsEmpty());  // still held
  small.closeFile(paths[0]);
  EXPECT_THAT(tree.takeCalls(), ElementsAre("closed /f"));
  EXPECT_NE(small.openFile(paths[1]), held);
}

TEST_F(NfsFileSystemTest, AStoppedListingGoesOnWithTheEntryItStoppedAt) {
  auto it = view.getDirIterator(view.openDirectory(NfsPath("/a")));
  std::vector<std::string> seen;
  const auto visitUntil = [&](const std::string& last) {
    seen.clear();
    view.iterateDir(it, [&](const std::string& name, const MetaData&) {
      seen.push_back(name);
      return name == last;
    });
    return seen;
  };
  EXPECT_THAT(visitUntil("b"), ElementsAre(".", "..", "b"));
  EXPECT_THROW(view.iterateDir(it, {}), std::bad_function_call);
  EXPECT_THAT(visitUntil(""), ElementsAre("b", "f"));
  EXPECT_EQ(it, DirectoryIterator());
  EXPECT_THAT(visitUntil(""), IsEmpty());
}

TEST_F(NfsFileSystemTest, WhatIsRemovedOrMovedIsForgotten) {
  const NfsPath b("/a/b");
  view.openDirectory(b);
  view.openFile(NfsPath("/f"));
  view.remove("c", b);  // lists "." and ".." only
  EXPECT_FALSE(tree.has("/a/b/c"));
  tree.takeCalls();
  view.openDirectory(b);  // forgotten too: the object may know its old entries
  EXPECT_THAT(tree.takeCalls(), Contains("OpenSubdir /a/b"));
  view.moveEntry("f", NfsPath("/"), view.openDirectory(b), "g");
  EXPECT_THROW(view.openFile(NfsPath("/f")), INfsException);
}

TEST_F(NfsFileSystemTest, RefusedRemovalsDoNotReachTheHost) {
  const auto remove = [&](const char* name) {
    return failureOf([&] { view.remove(name, NfsPath("/")); });
  };
  EXPECT_EQ(remove("a"), "Directory is not empty [/a]");
  EXPECT_EQ(remove("x"), "Cannot get metadata for path.");
  tree.listable = false;
  EXPECT_EQ(remove("a"), "Cannot enumerate directory [/a]");
  for (const std::string& call : tree.takeCalls()) EXPECT_NE(call.substr(0, 6), "Remove");
}

TEST_F(NfsFileSystemTest, HandlesLeadBackToPathsByTheLowHalfOfTheObjectId) {
  MetaData md;
  md.fileId = 0x1'0000'0005;
  const NfsHandle handle = view.getHandle({7, 3, 99}, NfsPath("/f"), md);
  EXPECT_EQ(handle, (NfsHandle{7, 3, 0x1'0000'0005}));
  EXPECT_THAT(log.takeLines(),
              ElementsAre("dbg Create handle for path [/f], handle [7:3:4294967301]"));
  EXPECT_EQ(view.getPath(handle), NfsPath("/f"));
  md.fileId = 5;
  view.getHandle({7, 3, 0}, NfsPath("/a"), md);
  EXPECT_EQ(view.getPath(handle), NfsPath("/a"));

  log.takeLines();
  EXPECT_EQ(view.findPath({7, 3, 6}), std::nullopt);
  EXPECT_EQ(failureOf([&] { view.getPath({7, 3, 6}); }), "NFS handle is invalid.");
  EXPECT_THAT(log.takeLines(), ElementsAre("err NFS handle [7:3:6] is invalid."));
}

TEST_F(NfsFileSystemTest, SaysWhatItHeldWhenItGoes) {
  {
    NfsFileSystem other(tree, spec(false));
    other.openFile(NfsPath("/a/f"));
    other.getHandle({}, NfsPath("/a"), other.getMetaData(NfsPath("/a")));
    log.takeLines();
    tree.takeCalls();
  }
  EXPECT_THAT(log.takeLines(),
              ElementsAre("info NFS handle map size: [1].", "info Directory cache size: [1].",
                          "info MetaData cache size: [1]."));
  EXPECT_THAT(tree.takeCalls(), ElementsAre("closed /a/f"));
}

}  // namespace
}  // namespace nfslib::testing
