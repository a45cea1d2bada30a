#include "fs/cache_triggers.h"

#include "support/counting_tree.h"

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

const NfsPath kDir("/d");
const NfsPath kFile("/d/f");
const NfsPath kSub("/d/s");
const NfsPath kOther("/o");

class CacheTriggerTest : public ::testing::Test {
 protected:
  CacheTriggerTest() {
    const auto root = tree.OpenRoot();
    hostDir = root->OpenSubdir("d");
    hostFile = hostDir->OpenFile("f");
    dir = std::make_shared<NfsDirCacheTrigger>(kDir, hostDir, cache);
    other = std::make_shared<NfsDirCacheTrigger>(kOther, root->OpenSubdir("o"), cache);
    file = dir->OpenFile("f");
    fill();
    tree.takeCalls();
  }

  void fill() {
    for (const NfsPath& path : kAll) cache->set(path, {});
  }
  // The paths whose attributes are gone since the last call; all are there again then.
  std::vector<std::string> takeDropped() {
    std::vector<std::string> dropped;
    for (const NfsPath& path : kAll) {
      if (!cache->find(path)) dropped.push_back(path.str());
    }
    fill();
    return dropped;
  }

  const std::vector<NfsPath> kAll{NfsPath("/"), kDir, kFile, kSub, kOther};
  CountingTree tree{{"/d", "/o", "/d/s"}, {"/d/f", "/d/g"}};
  std::shared_ptr<MetaDataCache> cache = std::make_shared<MetaDataCache>(64);
  std::shared_ptr<Directory> hostDir, dir, other;
  std::shared_ptr<File> hostFile, file;
};

TEST_F(CacheTriggerTest, EachCallReachesTheHostAndDropsWhatItChanges) {
  tree.add("/d/link", FileType::SymbolicLink);
  const struct {
    const char* hostCall;
    std::vector<std::string> dropped;
    std::function<void()> run;
  } calls[] = {
      {"Enumerate /d", {}, [&] { dir->Enumerate(); }},
      {"OpenSubdir /d/s", {}, [&] { dir->OpenSubdir("s"); }},
      {"OpenFile /d/f", {}, [&] { dir->OpenFile("f"); }},
      {"OpenSymlink /d/link", {}, [&] { dir->OpenSymlink("link"); }},
      {"GetMetaData /d", {}, [&] { dir->GetMetaData(); }},
      {"GetEntryByName /d/f", {}, [&] { dir->GetEntryByName("f"); }},
      {"TryGetEntryByName /d/x", {}, [&] { EXPECT_FALSE(dir->TryGetEntryByName("x")); }},
      {"SetMetaData /d", {"/d"}, [&] { dir->SetMetaData({}); }},
      {"CreateSubdir /d/n1", {"/d"}, [&] { dir->CreateSubdir("n1"); }},
      {"CreateFile /d/n2", {"/d"}, [&] { dir->CreateFile("n2"); }},
      {"CreateSymlink /d/n3", {"/d"}, [&] { dir->CreateSymlink("n3", "target"); }},
      {"RemoveSubdir /d/n1", {"/d"}, [&] { dir->RemoveSubdir("n1"); }},
      {"RemoveFile /d/n2", {"/d"}, [&] { dir->RemoveFile("n2"); }},
      {"MoveEntry /d/g /o/h", {"/d", "/o"}, [&] { dir->MoveEntry("g", other, "h"); }},
      {"MoveEntry /d/n3 /d/n4", {"/d"}, [&] { dir->MoveEntry("n3", hostDir, "n4"); }},
      {"Link /d/l1 /d/f", {"/d", "/d/f"}, [&] { dir->Link("l1", file); }},
      {"Link /d/l2 /d/f", {"/d"}, [&] { dir->Link("l2", hostFile); }},
      {"Read /d/f", {}, [&] { EXPECT_EQ(file->Read(0, nullptr, 7), 7U); }},
      {"GetMetaData /d/f", {}, [&] { file->GetMetaData(); }},
      {"Write /d/f", {"/d/f"}, [&] { EXPECT_EQ(file->Write(0, nullptr, 7), 7U); }},
      {"SetMetaData /d/f", {"/d/f"}, [&] { file->SetMetaData({}); }},
      // Wrapping goes on below.
      {"SetMetaData /d/s", {"/d/s"}, [&] { dir->OpenSubdir("s")->SetMetaData({}); }},
      {"CreateFile /d/s/f", {"/d/s"}, [&] { dir->OpenSubdir("s")->CreateFile("f"); }},
      {"SetMetaData /d/link", {}, [&] { dir->OpenSymlink("link")->SetMetaData({}); }},
  };
  for (const auto& call : calls) {
    call.run();
    EXPECT_THAT(tree.takeCalls(), ::testing::Contains(call.hostCall));
    EXPECT_EQ(takeDropped(), call.dropped) << call.hostCall;
  }
}

TEST_F(CacheTriggerTest, DropsBeforeTheHostIsCalledEvenWhenItFails) {
  tree.onCall = [&](const std::string& call) {
    if (call == "CreateFile /d/x") {
      EXPECT_FALSE(cache->find(kDir));
      throw OutOfSpaceNfsException("full");
    }
  };
  EXPECT_THROW(dir->CreateFile("x"), OutOfSpaceNfsException);
  EXPECT_THAT(takeDropped(), ElementsAre("/d"));
}

TEST_F(CacheTriggerTest, OutlivesTheCache) {
  cache.reset();
  dir->CreateSubdir("n")->CreateFile("f")->Write(0, nullptr, 1);
  file->SetMetaData({});
  EXPECT_THAT(tree.takeCalls(), ElementsAre("CreateSubdir /d/n", "CreateFile /d/n/f",
                                            "Write /d/n/f", "closed /d/n/f", "SetMetaData /d/f"));
}

TEST_F(CacheTriggerTest, HostObjectIsWhatTheHostGave) {
  EXPECT_EQ(hostObject(dir), hostDir);
  EXPECT_EQ(hostObject(hostDir), hostDir);
  EXPECT_NE(hostObject(file), file);
  EXPECT_EQ(hostObject(hostFile), hostFile);
}

}  // namespace
}  // namespace nfslib::testing
