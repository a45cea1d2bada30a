// Changes that others make to a directory of this machine, as its host tells of them.

#include <nfslib/hosts/posix_file_system.h>

#include "fs/nfs_file_system.h"
#include "hosts/host_conformance.h"
#include "support/recorded_log.h"
#include "support/scratch_directory.h"

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nfslib::testing {
namespace {

namespace fs = std::filesystem;
using conformance::contentOf;
using conformance::put;
using hosts::PosixFileSystem;
using std::chrono_literals::operator""s;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr auto kPatience = 20s;
constexpr std::size_t kPlenty = 1000;

void writeFile(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }
void append(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::app) << text;
}

// A view of a directory, and what its host tells.
class PosixWatcherTest : public ::testing::Test {
 protected:
  PosixWatcherTest() {
    fs::create_directories(inside / "d/e");
    writeFile(inside / "f", "text");
    writeFile(inside / "d/f", "text");
    writeFile(inside / "d/e/f", "text");
  }
  ~PosixWatcherTest() override { tree.reset(); }

  void watch(std::size_t most = kPlenty) {
    tree = std::make_unique<PosixFileSystem>(inside);
    NfsMountSpec spec;
    spec.writeEnabled = true;
    spec.maxOpenFiles = 8;
    view = std::make_unique<NfsFileSystem>(*tree, spec, profileOf(NfsServerPolicy::modern()));
    tree->watchChanges(
        [this](const Invalidation& what) {
          view->invalidate(what);
          std::unique_lock lock(m_lock);
          m_more.wait_for(lock, kPatience, [this] { return !m_heldUp; });
          std::string line = what.path.str();
          if (what.scope == Invalidation::Scope::Tree) line += " and below";
          if (what.movedTo) line += " to " + what.movedTo->str();
          m_told.push_back(line);
          m_more.notify_all();
        },
        most);
  }

  // Whether it comes true, asked anew whenever something was told.
  ::testing::AssertionResult comesTrue(const std::function<bool()>& isSo) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    std::unique_lock lock(m_lock);
    for (;;) {
      const std::size_t seen = m_told.size();
      lock.unlock();
      if (isSo()) return ::testing::AssertionSuccess();
      lock.lock();
      if (!m_more.wait_until(lock, deadline, [&] { return m_told.size() != seen; })) {
        return ::testing::AssertionFailure() << "told: " << ::testing::PrintToString(m_told);
      }
    }
  }
  // The watcher's thread stops at the next change that it tells, or goes on.
  void holdUp(bool isHeldUp) {
    const std::lock_guard lock(m_lock);
    m_heldUp = isHeldUp;
    m_more.notify_all();
  }
  std::vector<std::string> takeTold() {
    const std::lock_guard lock(m_lock);
    return std::exchange(m_told, {});
  }
  // What was told until everything that has happened so far was.
  std::vector<std::string> toldUntilNow() {
    view->getMetaData(NfsPath("/"));  // so that the root is watched
    const std::string name = "last " + std::to_string(++m_markers);
    writeFile(inside / name, "");
    EXPECT_TRUE(comesTrue([&] {
      const std::lock_guard lock(m_lock);
      return std::find(m_told.begin(), m_told.end(), "/" + name) != m_told.end();
    }));
    auto told = takeTold();
    std::erase_if(told, [&](const std::string& line) { return line == "/" + name; });
    const auto rootToo = std::find(told.rbegin(), told.rend(), "/");
    if (rootToo != told.rend()) told.erase(std::prev(rootToo.base()));
    return told;
  }

  MetaData attributes(const char* path) { return view->getMetaData(NfsPath(path)); }
  bool exists(const char* path) { return view->findMetaData(NfsPath(path)).has_value(); }
  NfsHandle handleOf(const char* path) {
    return view->getHandle({}, NfsPath(path), attributes(path));
  }

  RecordedLog log{LogLevel::dbg};
  ScratchDirectory scratch;
  const fs::path inside = scratch.path();
  std::unique_ptr<NfsFileSystem> view;
  std::unique_ptr<PosixFileSystem> tree;

 private:
  std::mutex m_lock;  // guards the two fields behind the next
  std::condition_variable m_more;
  std::vector<std::string> m_told;
  bool m_heldUp = false;
  int m_markers = 0;
};

TEST_F(PosixWatcherTest, ChangesOfFilesAreSeen) {
  watch();
  const NfsHandle handle = handleOf("/d/f");
  std::uint64_t change = view->changeOf(attributes("/d/f"));
  const auto isTold = [&] {
    const std::uint64_t now = view->changeOf(attributes("/d/f"));
    return std::exchange(change, now) != now;
  };
  append(inside / "d/f", "more");
  EXPECT_TRUE(comesTrue([&] { return attributes("/d/f").size == 8; }));
  EXPECT_TRUE(isTold());
  fs::resize_file(inside / "d/f", 1);
  EXPECT_TRUE(comesTrue([&] { return attributes("/d/f").size == 1; }));
  ASSERT_EQ(::chmod((inside / "d/f").c_str(), 0600), 0);
  EXPECT_TRUE(comesTrue([&] { return attributes("/d/f").mode == 0600; }));
  toldUntilNow();
  isTold();
  std::fstream(inside / "d/f", std::ios::in | std::ios::out) << "T";  // the size stays
  EXPECT_TRUE(comesTrue(isTold));
  EXPECT_EQ(view->findPath(handle), NfsPath("/d/f"));
}

TEST_F(PosixWatcherTest, AReplacementIsAnotherFile) {
  watch();
  const NfsHandle handle = handleOf("/d/f");
  EXPECT_EQ(contentOf(*view->openFile(NfsPath("/d/f"))), "text");
  writeFile(inside / "d/new", "new text");
  fs::rename(inside / "d/new", inside / "d/f");
  EXPECT_TRUE(comesTrue([&] { return attributes("/d/f").size == 8; }));
  EXPECT_EQ(contentOf(*view->openFile(NfsPath("/d/f"))), "new text");
  EXPECT_EQ(view->findPath(handle), std::nullopt);
  EXPECT_EQ(view->findPath(handleOf("/d/f")), NfsPath("/d/f"));
  fs::remove(inside / "d/f");
  EXPECT_TRUE(comesTrue([&] { return !exists("/d/f"); }));
}

TEST_F(PosixWatcherTest, DirectoriesMayComeGoAndMove) {
  watch();
  const NfsHandle top = handleOf("/d"), below = handleOf("/d/e/f");
  fs::create_directory(inside / "other");
  EXPECT_TRUE(comesTrue([&] { return attributes("/").linkCount == 4; }));
  EXPECT_TRUE(exists("/other"));
  fs::rename(inside / "d", inside / "other/moved");
  EXPECT_TRUE(comesTrue([&] { return view->findPath(below) == NfsPath("/other/moved/e/f"); }));
  EXPECT_EQ(view->findPath(top), NfsPath("/other/moved"));
  EXPECT_FALSE(exists("/d/e/f"));

  // The watches went along, also through another rename.
  attributes("/other/moved/e/f");
  fs::rename(inside / "other", inside / "d");
  EXPECT_TRUE(comesTrue([&] { return view->findPath(below) == NfsPath("/d/moved/e/f"); }));
  EXPECT_EQ(attributes("/d/moved/e/f").size, 4U);
  append(inside / "d/moved/e/f", "more");
  EXPECT_TRUE(comesTrue([&] { return attributes("/d/moved/e/f").size == 8; }));

  // Out of the tree and back to another place.
  ScratchDirectory outside;
  fs::rename(inside / "d/moved", outside.path() / "moved");
  EXPECT_TRUE(comesTrue([&] { return !exists("/d/moved/e/f"); }));
  EXPECT_EQ(view->findPath(below), std::nullopt);
  fs::rename(outside.path() / "moved", inside / "back");
  EXPECT_TRUE(comesTrue([&] { return exists("/back/e/f"); }));
  append(inside / "back/e/f", "again");
  EXPECT_TRUE(comesTrue([&] { return attributes("/back/e/f").size == 13; }));
  fs::remove_all(inside / "back");
  EXPECT_TRUE(comesTrue([&] { return !exists("/back"); }));
}

TEST_F(PosixWatcherTest, WhatClientsDoIsNotTold) {
  watch();
  attributes("/d/e/f");
  toldUntilNow();
  const auto root = tree->OpenRoot();
  const auto dir = root->OpenSubdir("d");
  const auto file = dir->CreateFile("new");
  for (unsigned long i = 0; i < 200; ++i) file->Write(i * 10, "0123456789", 10);
  MetaData md = file->GetMetaData();
  md.mode = 0600;
  md.size = 5;
  md.modifyTime = 1'000'000'000;
  file->SetMetaData(md);
  dir->Link("link", file);
  dir->CreateSymlink("symlink", "new");
  dir->MoveEntry("new", root, "moved");
  dir->RemoveFile("link");
  dir->CreateFile("new");
  const auto made = dir->CreateSubdir("made");
  MetaData mode = made->GetMetaData();
  mode.mode = 0700;
  made->SetMetaData(mode);
  made->CreateFile("inner");
  dir->MoveEntry("made", root, "made");
  made->RemoveFile("inner");
  root->RemoveSubdir("made");
  EXPECT_THAT(toldUntilNow(), IsEmpty());

  // Others do the same things next to it.
  attributes("/moved");
  append(inside / "moved", "more");
  fs::remove(inside / "d/new");
  const auto told = toldUntilNow();
  EXPECT_THAT(told, Contains("/moved"));
  EXPECT_THAT(told, Contains("/d"));
  EXPECT_THAT(told, Contains("/d/new"));
}

TEST_F(PosixWatcherTest, WatchesFollowARenameByAClient) {
  watch();
  const NfsHandle below = handleOf("/d/e/f");
  const auto root = view->openDirectory(NfsPath("/"));
  view->moveEntry("d", NfsPath("/"), root, "g");
  view->recordMove(NfsPath("/d"), NfsPath("/g"));
  fs::create_directories(inside / "d/e");
  writeFile(inside / "d/e/f", "another");
  EXPECT_EQ(attributes("/g/e/f").size, 4U);
  append(inside / "g/e/f", "more");
  EXPECT_TRUE(comesTrue([&] { return attributes("/g/e/f").size == 8; }));
  EXPECT_EQ(attributes("/d/e/f").size, 7U);
  append(inside / "d/e/f", "more");
  EXPECT_TRUE(comesTrue([&] { return attributes("/d/e/f").size == 11; }));
  toldUntilNow();
  EXPECT_EQ(view->findPath(below), NfsPath("/g/e/f"));
}

// The system drops what nobody reads in time.
TEST_F(PosixWatcherTest, AfterLostReportsEverythingIsReadAnew) {
  std::size_t most = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most;
  if (most == 0 || most > 200'000) GTEST_SKIP() << "the queue of reports holds " << most;
  watch();
  const NfsHandle below = handleOf("/d/e/f");
  const std::uint64_t change = view->changeOf(attributes("/d/e/f"));
  holdUp(true);
  for (std::size_t i = 0; i < most; ++i) {
    fs::create_symlink("target", inside / "link");
    fs::remove(inside / "link");
  }
  fs::rename(inside / "d", inside / "g");
  append(inside / "g/e/f", "more");
  holdUp(false);
  EXPECT_TRUE(comesTrue([&] { return !exists("/d/e/f"); }));
  EXPECT_EQ(attributes("/g/e/f").size, 8U);
  EXPECT_EQ(view->findPath(below), std::nullopt);
  EXPECT_GT(view->changeOf(attributes("/g/e/f")), change);
  append(inside / "g/e/f", "again");
  EXPECT_TRUE(comesTrue([&] { return attributes("/g/e/f").size == 13; }));
}

TEST_F(PosixWatcherTest, WhatCannotBeWatchedIsReadAnew) {
  watch(2);  // the root and one more
  attributes("/d/f");
  for (std::uint64_t size = 5; size < 8; ++size) {
    append(inside / "d/e/f", "x");
    EXPECT_EQ(attributes("/d/e/f").size, size);
    append(inside / "d/f", "x");
    EXPECT_TRUE(comesTrue([&] { return attributes("/d/f").size == size; }));
  }
  EXPECT_FALSE(tree->Watch(NfsPath("/d/e")));
  EXPECT_TRUE(tree->Watch(NfsPath("/d")));
  const auto lines = log.takeLines();
  EXPECT_THAT(lines, Contains(HasSubstr("the limit of 2 directories is reached")));
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const auto& line) { return line.starts_with("warn"); }),
            1);
}

TEST_F(PosixWatcherTest, WithoutAListenerNothingIsKept) {
  tree = std::make_unique<PosixFileSystem>(inside);
  view = std::make_unique<NfsFileSystem>(*tree, NfsMountSpec{});
  for (std::uint64_t size = 5; size < 8; ++size) {
    append(inside / "f", "x");
    EXPECT_EQ(attributes("/f").size, size);
  }
}

}  // namespace
}  // namespace nfslib::testing
