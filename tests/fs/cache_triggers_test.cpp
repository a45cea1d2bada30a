#include "fs/cache_triggers.h"

#include "support/counting_tree.h"

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;

class CacheTriggerTest : public ::testing::Test {
 protected:
  std::shared_ptr<Directory> wrapped(const char* name) {
    return std::make_shared<NfsDirCacheTrigger>(NfsPath(name), tree.OpenRoot()->OpenSubdir(name),
                                                cache);
  }
  // The paths whose attributes `run` takes away.
  std::vector<std::string> droppedBy(const std::function<void()>& run) {
    for (const char* path : kPaths) cache->set(NfsPath(path), {});
    run();
    std::vector<std::string> dropped;
    for (const char* path : kPaths) {
      if (!cache->find(NfsPath(path))) dropped.emplace_back(path);
    }
    return dropped;
  }

  static constexpr std::array kPaths{"/", "/d", "/d/f", "/d/s", "/o"};
  CountingTree tree{{"/d", "/o", "/d/s"}, {"/d/f", "/d/g"}};
  std::shared_ptr<MetaDataCache> cache = std::make_shared<MetaDataCache>(64);
  std::shared_ptr<Directory> dir = wrapped("d"), other = wrapped("o");
  std::shared_ptr<File> file = dir->OpenFile("f");
};

TEST_F(CacheTriggerTest, EachCallDropsWhatItChanges) {
  EXPECT_THAT(droppedBy([&] { dir->Enumerate(), file->Read(0, nullptr, 7); }), ElementsAre());
  EXPECT_THAT(droppedBy([&] { dir->SetMetaData({}); }), ElementsAre("/d"));
  EXPECT_THAT(droppedBy([&] { dir->CreateSubdir("n1"); }), ElementsAre("/d"));
  EXPECT_THAT(droppedBy([&] { dir->CreateSymlink("n2", "to"); }), ElementsAre("/d"));
  EXPECT_THAT(droppedBy([&] { dir->RemoveSubdir("n1"); }), ElementsAre("/d"));
  EXPECT_THAT(droppedBy([&] { dir->RemoveFile("n2"); }), ElementsAre("/d"));
  EXPECT_THAT(droppedBy([&] { dir->MoveEntry("g", other, "h"); }), ElementsAre("/d", "/o"));
  EXPECT_THAT(droppedBy([&] { dir->Link("l", file); }), ElementsAre("/d", "/d/f"));
  EXPECT_THAT(droppedBy([&] { file->Write(0, nullptr, 7); }), ElementsAre("/d/f"));
  EXPECT_THAT(droppedBy([&] { file->SetMetaData({}); }), ElementsAre("/d/f"));
  EXPECT_THAT(droppedBy([&] { dir->OpenSubdir("s")->CreateFile("f"); }), ElementsAre("/d/s"));
}

TEST_F(CacheTriggerTest, DropsBeforeTheHostIsCalledEvenWhenItFails) {
  tree.onCall = [&](const std::string& call) {
    if (call != "CreateFile /d/x") return;
    EXPECT_FALSE(cache->find(NfsPath("/d")));
    throw OutOfSpaceNfsException("full");
  };
  EXPECT_THAT(droppedBy([&] { EXPECT_THROW(dir->CreateFile("x"), OutOfSpaceNfsException); }),
              ElementsAre("/d"));
}

TEST_F(CacheTriggerTest, OutlivesTheCache) {
  cache.reset();
  tree.takeCalls();
  dir->CreateSubdir("n")->CreateFile("f")->Write(0, nullptr, 1);
  file->SetMetaData({});
  EXPECT_THAT(tree.takeCalls(), ElementsAre("CreateSubdir /d/n", "CreateFile /d/n/f",
                                            "Write /d/n/f", "closed /d/n/f", "SetMetaData /d/f"));
}

}  // namespace
}  // namespace nfslib::testing
