// What a view makes of changes that others make to the host's tree.

#include <nfslib/nfs_server_policy.h>

#include "fs/nfs_file_system.h"
#include "support/watched_tree.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using Scope = Invalidation::Scope;

NfsMountSpec writable() {
  NfsMountSpec spec;
  spec.writeEnabled = true;
  spec.maxOpenFiles = 8;
  return spec;
}

class InvalidationTest : public ::testing::TestWithParam<bool> {
 protected:
  static NfsMountSpec spec() { return GetParam() ? writable() : NfsMountSpec{}; }

  NfsHandle handleOf(const NfsPath& path) {
    return view.getHandle({}, path, view.getMetaData(path));
  }
  // By somebody else.
  void resize(const NfsPath& path, std::uint64_t size) {
    tree.change(path.str(), [&](MetaData& md) { md.size = size; });
  }
  std::uint64_t changeOf(const NfsPath& path) { return view.changeOf(view.getMetaData(path)); }

  const NfsPath a{"/a"}, file{"/a/f"}, deep{"/a/b/f"}, other{"/f"};
  WatchedTree tree{{"/a", "/a/b"}, {"/f", "/a/f", "/a/b/f"}};
  NfsFileSystem view{tree, spec(), profileOf(NfsServerPolicy::modern())};
};

INSTANTIATE_TEST_SUITE_P(Exports, InvalidationTest, ::testing::Bool(),
                         [](const auto& writes) { return writes.param ? "Writable" : "ReadOnly"; });

TEST_P(InvalidationTest, WhatIsKeptOfTheObjectIsDroppedAndNothingElse) {
  for (const NfsPath& path : {file, deep}) view.getMetaData(path);
  const auto held = view.openFile(file);
  tree.takeCalls();
  resize(file, 7);
  resize(deep, 8);
  EXPECT_EQ(view.getMetaData(file).size, 0U);  // nobody has told
  EXPECT_EQ(view.openFile(file), held);
  EXPECT_THAT(tree.takeCalls(), IsEmpty());

  view.invalidate({.path = file});
  EXPECT_EQ(view.getMetaData(file).size, 7U);
  EXPECT_EQ(view.getMetaData(deep).size, 0U);
  EXPECT_NE(view.openFile(file), held);
  EXPECT_THAT(tree.takeCalls(), Contains("OpenFile /a/f"));
  EXPECT_EQ(held->Read(0, nullptr, 5), 5U);

  view.invalidate({.path = NfsPath("/"), .scope = Scope::Tree});
  EXPECT_EQ(view.getMetaData(deep).size, 8U);
  view.openDirectory(a / "b");
  EXPECT_THAT(tree.takeCalls(), Contains("OpenSubdir /a/b"));
}

TEST_P(InvalidationTest, NothingIsKeptWhereTheHostDoesNotTell) {
  tree.tells = false;
  for (std::uint64_t size = 1; size < 4; ++size) {
    resize(file, size);
    EXPECT_EQ(view.getMetaData(file).size, size);
    view.openFile(file);
    view.openDirectory(a);
    const auto calls = tree.takeCalls();
    EXPECT_THAT(calls, Contains("OpenFile /a/f"));
    EXPECT_THAT(calls, Contains("closed /a/f"));
    EXPECT_THAT(calls, Contains("OpenSubdir /a"));
  }
  MetaData md = view.getMetaData(file);
  md.mode = 0600;
  view.setMetaData(file, md);
  resize(file, 9);
  EXPECT_EQ(view.getMetaData(file).size, 9U);
  tree.change("/", [](MetaData& root) { root.mode = 0700; });
  EXPECT_EQ(view.getMetaData(NfsPath("/")).mode, 0700);
  tree.change("/", [](MetaData& root) { root.mode = 0711; });
  EXPECT_EQ(view.getMetaData(NfsPath("/")).mode, 0711);
}

// A host may learn of its change while a request reads what was before.
TEST_P(InvalidationTest, AnAnswerFromBeforeTheNewsIsNotKept) {
  tree.onCall = [&](const std::string& call) {
    if (call != "GetEntryByName /a/f") return;
    tree.onCall = nullptr;
    view.invalidate({.path = file});
  };
  view.getMetaData(file);
  resize(file, 7);
  EXPECT_EQ(view.getMetaData(file).size, 7U);
}

TEST_P(InvalidationTest, ClientsSeeEachChangeWithinASecond) {
  handleOf(file);
  handleOf(other);
  const std::uint64_t first = changeOf(file);
  const std::uint64_t unchanged = changeOf(other);
  view.invalidate({.path = file});
  const std::uint64_t second = changeOf(file);
  EXPECT_GT(second, first);
  view.invalidate({.path = file});  // known by its handle alone
  view.invalidate({.path = file});
  EXPECT_GT(changeOf(file), second);
  EXPECT_EQ(changeOf(other), unchanged);
  view.invalidate({.path = a, .scope = Scope::Tree});
  EXPECT_GT(changeOf(other), unchanged);
}

TEST_P(InvalidationTest, AHandleNeverLeadsToAnotherObject) {
  const NfsHandle handle = handleOf(file);
  EXPECT_EQ(view.findPath(handle), file);
  tree.add("/a/f", FileType::Regular);  // another one in its place
  view.invalidate({.path = file});
  EXPECT_EQ(view.findPath(handle), std::nullopt);
  const NfsHandle successor = handleOf(file);
  EXPECT_NE(successor.objectId, handle.objectId);
  EXPECT_EQ(view.findPath(successor), file);

  tree.tells = false;
  tree.add("/f", FileType::Regular);
  const NfsHandle before = handleOf(other);
  tree.add("/f", FileType::Regular);
  EXPECT_EQ(view.findPath(before), std::nullopt);

  // Only absence says that the object is gone.
  tree.onCall = [](const std::string& call) {
    if (call == "GetEntryByName /f") throw SystemNfsException(5, "disk");
  };
  EXPECT_EQ(view.findPath(before), other);
  tree.onCall = nullptr;
}

// A host that only tells has its handles checked as well.
TEST_P(InvalidationTest, AHandleIsCheckedFromTheFirstNewsOn) {
  CountingTree plain{{}, {"/f", "/g"}};
  NfsFileSystem shown(plain, spec(), profileOf(NfsServerPolicy::modern()));
  const MetaData before = shown.getMetaData(other);
  const NfsHandle handle = shown.getHandle({}, other, before);
  plain.add("/f", FileType::Regular);
  shown.invalidate({.path = other});
  EXPECT_EQ(shown.findPath(handle), std::nullopt);
  EXPECT_GT(shown.changeOf(before), std::uint64_t{before.modifyTime} << 32U);
}

TEST_P(InvalidationTest, AHandleFollowsItsObject) {
  const NfsHandle handle = handleOf(file);
  const auto id = handle.objectId;
  const NfsPath to("/g");
  const auto root = tree.OpenRoot();
  root->OpenSubdir("a")->MoveEntry("f", root, "g");
  tree.add("/a/f", FileType::Regular);
  view.invalidate({.path = file});
  const NfsHandle successor = handleOf(file);  // seen before the news of the move come
  view.invalidate({.path = file, .movedTo = to, .fileId = id});
  EXPECT_EQ(view.findPath(handle), to);
  EXPECT_EQ(view.findPath(successor), file);
  view.invalidate({.path = file, .movedTo = to, .fileId = id});  // and once more
  EXPECT_EQ(view.findPath(handle), to);
  EXPECT_EQ(view.findPath(successor), file);
}

TEST_P(InvalidationTest, ManyThreadsMayTell) {
  const NfsHandle handle = handleOf(file);
  std::atomic<bool> stop = false;
  std::vector<std::thread> threads;
  for (const Scope scope : {Scope::Object, Scope::Tree}) {
    threads.emplace_back([&, scope] {
      while (!stop) {
        view.invalidate({.path = a, .scope = scope});
        view.invalidate({.path = file, .scope = scope, .movedTo = file, .fileId = handle.objectId});
      }
    });
  }
  for (std::uint64_t size = 1; size <= 2000; ++size) {
    resize(file, size);
    view.invalidate({.path = file});
    ASSERT_EQ(view.getMetaData(file).size, size);
    ASSERT_EQ(view.findPath(handle), file);
    view.openFile(file);
    view.openDirectory(a / "b");
    handleOf(deep);
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace nfslib::testing
