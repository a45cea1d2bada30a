// What the host over a directory of this machine promises beyond the common rules: it stays inside,
// others may change the tree under it, and descriptors are few.

#include <nfslib/exception.h>
#include <nfslib/hosts/posix_file_system.h>

#include "hosts/host_conformance.h"
#include "posix/object_ids.h"
#include "posix/system.h"
#include "support/scratch_directory.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>
#include <thread>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace nfslib {

namespace {

namespace fs = std::filesystem;
using conformance::contentOf;
using conformance::expectRefused;
using conformance::HostFactory;
using conformance::HostUnderTest;
using conformance::namesIn;
using conformance::put;
using hosts::PosixFileSystem;
using nfslib::testing::ScratchDirectory;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

HostUnderTest makeHost(PosixFileSystem::PathWalk walk) {
  const auto scratch = std::make_shared<ScratchDirectory>();
  return {std::make_unique<PosixFileSystem>(scratch->path(), walk), scratch};
}

void writeFile(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }

std::string readFile(const fs::path& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

// The tree stands in "root" of the scratch directory; "outside", beside it, holds "secret".
class PosixHostTest : public ::testing::TestWithParam<PosixFileSystem::PathWalk> {
 protected:
  PosixHostTest() : inside(scratch.path() / "root"), outside(scratch.path() / "outside") {
    fs::create_directory(inside);
    fs::create_directory(outside);
    writeFile(outside / "secret", "secret");
    tree = std::make_unique<PosixFileSystem>(inside, GetParam());
    root = tree->OpenRoot();
  }

  ScratchDirectory scratch;
  fs::path inside;
  fs::path outside;
  std::unique_ptr<PosixFileSystem> tree;
  std::shared_ptr<Directory> root;
};

// Runs `work` on a thread that has given up its privileges.
void unprivileged(const std::function<void()>& work) {
  std::thread([&] {
    // The bare system calls change this thread alone.
    ASSERT_EQ(::syscall(SYS_setresgid, 65534, 65534, 65534), 0);
    ASSERT_EQ(::syscall(SYS_setresuid, 65534, 65534, 65534), 0);
    work();
  }).join();
}

// While this lives, the system grants this process no more than `most` of the resource, and does
// not kill it for asking.
class Limit {
 public:
  Limit(int resource, rlim_t most)
      : m_resource(resource), m_handler(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(::getrlimit(m_resource, &m_before), 0);
    const rlimit few{most, m_before.rlim_max};
    EXPECT_EQ(::setrlimit(m_resource, &few), 0);
  }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;
  ~Limit() {
    EXPECT_EQ(::setrlimit(m_resource, &m_before), 0);
    std::signal(SIGXFSZ, m_handler);
  }

 private:
  int m_resource;
  rlimit m_before{};
  void (*m_handler)(int);
};

}  // namespace

namespace conformance {

INSTANTIATE_TEST_SUITE_P(
    Posix, HostConformance,
    ::testing::Values(HostFactory{"Posix",
                                  [] { return makeHost(PosixFileSystem::PathWalk::Automatic); }},
                      HostFactory{"PosixByComponent",
                                  [] { return makeHost(PosixFileSystem::PathWalk::ByComponent); }}),
    hostName);

}  // namespace conformance

INSTANTIATE_TEST_SUITE_P(Walks, PosixHostTest,
                         ::testing::Values(PosixFileSystem::PathWalk::Automatic,
                                           PosixFileSystem::PathWalk::ByComponent),
                         [](const auto& walk) {
                           return walk.param == PosixFileSystem::PathWalk::Automatic
                                      ? "Automatic"
                                      : "ByComponent";
                         });

TEST_P(PosixHostTest, TheRootMustBeADirectory) {
  EXPECT_THROW(PosixFileSystem((inside / "absent").string()), INfsException);
  EXPECT_THROW(PosixFileSystem((outside / "secret").string()), INfsException);
  fs::create_directory_symlink(inside, scratch.path() / "way");
  root->CreateFile("file");
  PosixFileSystem throughLink((scratch.path() / "way").string(), GetParam());
  EXPECT_THAT(namesIn(*throughLink.OpenRoot()), ElementsAre("file"));
}

TEST_P(PosixHostTest, SymbolicLinksLeadNowhere) {
  fs::create_directory_symlink(outside, inside / "toDir");
  fs::create_symlink(outside / "secret", inside / "toFile");
  expectRefused([&] { root->OpenSubdir("toDir"); });
  expectRefused([&] { root->OpenFile("toFile"); });
  expectRefused([&] { root->CreateFile("toFile"); }, "already exists");
  EXPECT_TRUE(isType(root->GetEntryByName("toDir").metaData, FileType::SymbolicLink));

  // A change to the link stays with the link.
  const auto link = root->OpenSymlink("toFile");
  MetaData md = link->GetMetaData();
  md.mode = 0;
  md.modifyTime = 1;
  link->SetMetaData(md);
  EXPECT_EQ(fs::status(outside / "secret").permissions() & fs::perms::owner_read,
            fs::perms::owner_read);
  struct stat status {};
  ASSERT_EQ(::stat((outside / "secret").c_str(), &status), 0);
  EXPECT_NE(status.st_mtime, 1);
}

TEST_P(PosixHostTest, AFileThatBecomesALinkWhileItIsOpenedIsNotFollowed) {
  std::atomic<bool> stop = false;
  writeFile(inside / "name", "text");
  std::thread swapper([&] {
    while (!stop) {
      fs::create_symlink(outside / "secret", inside / "link");
      fs::rename(inside / "link", inside / "name");
      writeFile(inside / "file", "text");
      fs::rename(inside / "file", inside / "name");
    }
  });
  int opened = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (int i = 0; (i < 2000 || opened < 50) && std::chrono::steady_clock::now() < deadline; ++i) {
    try {
      EXPECT_EQ(contentOf(*root->OpenFile("name")), "text");
      ++opened;
    } catch (const INfsException&) {
      // It was a link at the time.
    }
  }
  stop = true;
  swapper.join();
  EXPECT_GT(opened, 0);
}

// Somebody on this machine turns a directory that is in use into a link to another place.
TEST_P(PosixHostTest, ADirectoryThatBecomesALinkIsNotFollowed) {
  const auto top = root->CreateSubdir("top");
  const auto below = top->CreateSubdir("below");
  below->CreateFile("file");
  fs::create_directory(outside / "below");
  writeFile(outside / "below" / "file", "secret");
  fs::rename(inside / "top", inside / "aside");
  fs::create_directory_symlink(outside, inside / "top");

  for (const auto& dir : {top, below}) {
    expectRefused([&] { dir->Enumerate(); });
    expectRefused([&] { dir->OpenFile("file"); });
    expectRefused([&] { dir->CreateFile("new"); });
    expectRefused([&] { dir->RemoveFile("file"); });
    expectRefused([&] { dir->TryGetEntryByName("file"); });
    expectRefused([&] { dir->GetMetaData(); });
    expectRefused([&] { dir->MoveEntry("file", root, "stolen"); });
  }
  EXPECT_EQ(readFile(outside / "below" / "file"), "secret");
  EXPECT_FALSE(fs::exists(outside / "new"));
}

TEST_P(PosixHostTest, ADirectoryMovedOutOfTheTreeIsOutOfReach) {
  const auto top = root->CreateSubdir("top");
  const auto below = top->CreateSubdir("below");
  put(*below->CreateFile("file"), "text");
  fs::rename(inside / "top", outside / "top");

  expectRefused([&] { below->OpenFile("file"); });
  expectRefused([&] { below->CreateFile("new"); });
  expectRefused([&] { top->RemoveSubdir("below"); });
  expectRefused([&] { root->MoveEntry("top", root, "back"); });
  EXPECT_THAT(namesIn(*root), IsEmpty());

  // And back where its objects look for it.
  fs::rename(outside / "top", inside / "top");
  EXPECT_EQ(contentOf(*below->OpenFile("file")), "text");
}

TEST_P(PosixHostTest, ChangesByOthersAreSeen) {
  const auto dir = root->CreateSubdir("dir");
  writeFile(inside / "dir" / "file", "text");
  EXPECT_EQ(contentOf(*dir->OpenFile("file")), "text");

  fs::remove_all(inside / "dir");
  expectRefused([&] { dir->CreateFile("late"); });
  const auto successor = root->CreateSubdir("dir");
  expectRefused([&] { dir->CreateFile("late"); }, "was removed");
  successor->CreateFile("new");

  successor->RemoveFile("new");
  root->RemoveSubdir("dir");
  fs::create_directory(inside / "dir");
  expectRefused([&] { successor->CreateFile("late"); }, "was removed");

  // Entries that vanish during a pass are left out.
  for (int i = 0; i < 100; ++i) writeFile(inside / ("file " + std::to_string(i)), "");
  const auto pass = root->Enumerate();
  for (int i = 0; i < 100; ++i) fs::remove(inside / ("file " + std::to_string(i)));
  pass->MoveNext();
  for (; pass->IsValid(); pass->MoveNext()) EXPECT_EQ(pass->Current().name, "dir");
}

TEST_P(PosixHostTest, SpecialFilesAreListedAndCannotBeOpened) {
  ASSERT_EQ(::mkfifo((inside / "pipe").c_str(), 0600), 0);
  const hosts::posix::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (inside / "socket").string().copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);

  EXPECT_THAT(namesIn(*root), UnorderedElementsAre("pipe", "socket"));
  EXPECT_TRUE(isType(root->GetEntryByName("pipe").metaData, FileType::NamedPipe));
  EXPECT_TRUE(isType(root->GetEntryByName("socket").metaData, FileType::Socket));
  expectRefused([&] { root->OpenFile("pipe"); }, "not a regular file");
  expectRefused([&] { root->OpenFile("socket"); }, "not a regular file");
  expectRefused([&] { root->OpenSubdir("pipe"); });
  root->MoveEntry("pipe", root, "moved");
  root->RemoveFile("moved");
  EXPECT_THAT(namesIn(*root), ElementsAre("socket"));
}

TEST_P(PosixHostTest, PathsMayBeLongerThanTheSystemTakes) {
  std::vector<std::shared_ptr<Directory>> way{root};
  const std::string name(200, 'd');
  for (int level = 0; level < 60; ++level) way.push_back(way.back()->CreateSubdir(name));
  put(*way.back()->CreateFile("file"), "text");
  EXPECT_EQ(contentOf(*way.back()->OpenFile("file")), "text");
  way[30]->MoveEntry(name, root, "half");
  EXPECT_THAT(namesIn(*way.back()), ElementsAre("file"));
  way.back()->RemoveFile("file");
}

TEST_P(PosixHostTest, ManyDirectoriesTakeNoDescriptors) {
  std::vector<std::shared_ptr<Directory>> held;
  for (int i = 0; i < 500; ++i) held.push_back(root->CreateSubdir("dir " + std::to_string(i)));
  root->CreateFile("file");

  const Limit limit(RLIMIT_NOFILE, 100);
  for (const auto& dir : held) EXPECT_THAT(namesIn(*dir), IsEmpty());
  std::vector<std::shared_ptr<File>> files;
  expectRefused(
      [&] {
        for (;;) files.push_back(root->OpenFile("file"));
      },
      "Raise the limit on open files");
  files.clear();
  EXPECT_NO_THROW(root->OpenFile("file"));
}

TEST_P(PosixHostTest, ALinkGoesToTheFileThatIsHeld) {
  const auto held = root->CreateFile("file");
  put(*held, "held");
  root->Link("kept", held);
  writeFile(inside / "other", "other");
  fs::rename(inside / "other", inside / "file");
  root->Link("linked", held);
  EXPECT_EQ(readFile(inside / "linked"), "held");
}

TEST_P(PosixHostTest, ReadingAProgramKeepsNobodyFromRunningIt) {
  fs::copy_file("/bin/true", inside / "program");
  const auto program = root->OpenFile("program");
  EXPECT_GT(contentOf(*program).size(), 0U);
  EXPECT_EQ(std::system((inside / "program").c_str()), 0);
}

TEST_P(PosixHostTest, AttributesChangeTogetherOrNotAtAll) {
  const auto file = root->CreateFile("file");
  put(*file, "text");
  const MetaData before = file->GetMetaData();
  MetaData wanted = before;
  wanted.mode = 0600;
  wanted.accessTime = wanted.modifyTime = 1'000'000'000;
  wanted.size = 5000;
  {
    const Limit limit(RLIMIT_FSIZE, 1000);
    expectRefused([&] { file->SetMetaData(wanted); });
  }
  wanted.size = UINT64_MAX;
  expectRefused([&] { file->SetMetaData(wanted); });
  MetaData after = file->GetMetaData();
  after.changeTime = before.changeTime;
  EXPECT_EQ(after, before);
  EXPECT_EQ(contentOf(*file), "text");
}

TEST_P(PosixHostTest, AWriteThatFailsHalfwayLeavesTheSize) {
  const auto file = root->CreateFile("file");
  put(*file, "text");
  const std::string much(5000, 'x');
  {
    // The system writes as much as the limit lets it, then fails the rest.
    const Limit limit(RLIMIT_FSIZE, 1000);
    expectRefused([&] { file->Write(4, much.data(), much.size()); });
  }
  EXPECT_EQ(contentOf(*file), "text");
}

TEST_P(PosixHostTest, ATreeThatMayOnlyBeReadIsServed) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to become somebody else";
  fs::permissions(scratch.path(), fs::perms(0755));
  fs::create_directory(inside / "dir");
  writeFile(inside / "dir" / "file", "text");
  writeFile(inside / "dir" / "private", "hidden");
  fs::permissions(inside / "dir" / "private", fs::perms(0600));
  unprivileged([&] {
    const auto dir = root->OpenSubdir("dir");
    const auto file = dir->OpenFile("file");
    EXPECT_EQ(contentOf(*file), "text");
    expectRefused([&] { file->Write(0, "x", 1); }, "Permission denied");
    MetaData md = file->GetMetaData();
    md.size = 1;
    expectRefused([&] { file->SetMetaData(md); });
    expectRefused([&] { dir->CreateFile("new"); });
    expectRefused([&] { dir->RemoveFile("file"); });

    EXPECT_THAT(namesIn(*dir), UnorderedElementsAre("file", "private"));
    const auto hidden = dir->OpenFile("private");
    EXPECT_EQ(hidden->GetMetaData().size, 6U);
    expectRefused([&] { contentOf(*hidden); });
  });
  EXPECT_EQ(readFile(inside / "dir" / "file"), "text");
}

TEST_P(PosixHostTest, TheOwnerWritesWhateverTheMode) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to become somebody else";
  fs::permissions(scratch.path(), fs::perms(0755));
  fs::permissions(inside, fs::perms(0777));
  unprivileged([&] {
    const auto mode = [](std::uint16_t bits) {
      return [bits](File& file) {
        MetaData md = file.GetMetaData();
        md.mode = bits;
        file.SetMetaData(md);
      };
    };
    mode(0444)(*root->CreateFile("file"));
    put(*root->OpenFile("file"), "text");
    EXPECT_EQ(root->GetEntryByName("file").metaData.mode, 0444);
    EXPECT_EQ(contentOf(*root->OpenFile("file")), "text");

    // A mode that keeps out even the owner can be changed back by him.
    mode(0)(*root->OpenFile("file"));
    const auto closed = root->OpenFile("file");
    expectRefused([&] { contentOf(*closed); }, "Permission denied");
    mode(0600)(*closed);
    EXPECT_EQ(contentOf(*closed), "text");

    MetaData md = closed->GetMetaData();
    md.mode = 0640;
    md.uid = 0;
    expectRefused([&] { closed->SetMetaData(md); });
    EXPECT_EQ(closed->GetMetaData().mode, 0600) << "changed in part";
  });
}

// A directory of which most is read ahead. Where a pass has made 200 steps, so are hundreds of the
// entries that follow.
class PosixLargeDirectoryTest : public PosixHostTest {
 protected:
  PosixLargeDirectoryTest() {
    fs::permissions(scratch.path(), fs::perms(0755));
    for (int i = 0; i < kFiles; ++i) writeFile(inside / ("file " + std::to_string(i)), "");
  }
  std::shared_ptr<DirectoryEnumerator> passAfter200() const {
    auto pass = root->Enumerate();
    for (int i = 0; i < 200; ++i) pass->MoveNext();
    return pass;
  }

  static constexpr int kFiles = 3000;
};

INSTANTIATE_TEST_SUITE_P(Walk, PosixLargeDirectoryTest,
                         ::testing::Values(PosixFileSystem::PathWalk::Automatic));

TEST_P(PosixLargeDirectoryTest, ChangesAndRemovalsDuringAPassAreSeen) {
  const auto pass = passAfter200();
  std::vector<std::string> left;
  int step = 0;
  for (const auto other = passAfter200(); other->IsValid(); other->MoveNext(), ++step) {
    const std::string name = other->Current().name;
    const auto file = root->OpenFile(name);
    MetaData md = file->GetMetaData();
    md.mode = 0600;
    if (step % 3 == 0) put(*file, "text");
    if (step % 3 == 1) file->SetMetaData(md);
    if (step % 3 == 2) root->RemoveFile(name);
    if (step % 3 != 2) left.push_back(name);
  }
  left.erase(left.begin());  // the current entry of `pass`
  for (const std::string& name : left) {
    pass->MoveNext();
    ASSERT_TRUE(pass->IsValid());
    ASSERT_EQ(pass->Current().name, name);
    ASSERT_EQ(pass->Current().metaData, root->GetEntryByName(name).metaData) << name;
  }
  pass->MoveNext();
  EXPECT_FALSE(pass->IsValid());
}

TEST_P(PosixLargeDirectoryTest, ChangesByOthersAreSeenWithinASecond) {
  const auto pass = passAfter200();
  for (int i = 0; i < kFiles; ++i) fs::resize_file(inside / ("file " + std::to_string(i)), 7);
  int steps = 0;  // so small that the next batch is not reached
  for (; pass->Current().metaData.size == 0 && steps < 500; ++steps) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    pass->MoveNext();
  }
  EXPECT_LT(steps, 500);
}

TEST_P(PosixLargeDirectoryTest, PassesAndChangesAtOnce) {
  const auto file = root->OpenFile("file 1234");
  std::atomic<unsigned long> written = 0;
  std::vector<std::thread> passes;
  for (int i = 0; i < 3; ++i) {
    passes.emplace_back([&] {
      std::set<std::string> names;
      unsigned long before = written;
      for (const auto pass = root->Enumerate(); pass->IsValid(); pass->MoveNext()) {
        const DirEntry& entry = pass->Current();
        EXPECT_TRUE(names.insert(entry.name).second);
        EXPECT_TRUE(entry.name != "file 1234" || entry.metaData.size >= before);
        before = written;
      }
      EXPECT_EQ(names.size(), std::size_t{kFiles});
    });
  }
  for (; written < 200; ++written) put(*file, "x", written);
  for (std::thread& pass : passes) pass.join();
}

TEST_P(PosixLargeDirectoryTest, IsListedWhereNoThreadIsToBeHad) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to become somebody with a limit";
  unprivileged([&] {
    const Limit limit(RLIMIT_NPROC, 0);
    EXPECT_THROW(std::thread([] {}).join(), std::system_error);
    EXPECT_EQ(namesIn(*root).size(), std::size_t{kFiles});
  });
}

TEST(PosixObjectIdsTest, TellObjectsApart) {
  const auto object = [](std::uint32_t device, std::uint64_t inode, std::int64_t birth) {
    struct statx status {};
    status.stx_dev_minor = device;
    status.stx_ino = inode;
    status.stx_mask = STATX_BTIME;
    status.stx_btime.tv_sec = birth;
    return status;
  };
  hosts::posix::ObjectIds ids(true);
  const std::uint64_t first = ids.of(object(1, 7, 100));
  EXPECT_EQ(ids.of(object(1, 7, 100)), first);
  const std::uint64_t onOtherDevice = ids.of(object(2, 7, 100));
  const std::uint64_t highHalf = ids.of(object(1, 7 + (1UL << 32), 100));
  const std::uint64_t successor = ids.of(object(1, 7, 101));
  ids.forget(object(1, 7, 101));
  const std::uint64_t afterRemoval = ids.of(object(1, 7, 101));
  std::set<std::uint32_t> low;
  for (const std::uint64_t id : {first, onOtherDevice, highHalf, successor, afterRemoval}) {
    low.insert(static_cast<std::uint32_t>(id));
  }
  EXPECT_EQ(low.size(), 5U);

  // Among many, removals leave the others alone.
  std::vector<std::uint64_t> known;
  for (std::uint64_t inode = 0; inode < 5000; ++inode) known.push_back(ids.of(object(3, inode, 1)));
  for (std::uint64_t inode = 0; inode < 5000; inode += 3) ids.forget(object(3, inode, 1));
  for (std::uint64_t inode = 0; inode < 5000; ++inode) {
    EXPECT_EQ(ids.of(object(3, inode, 1)) == known[inode], inode % 3 != 0) << inode;
  }

  hosts::posix::ObjectIds onOverlay(false);
  EXPECT_EQ(onOverlay.of(object(1, 7, 100)), onOverlay.of(object(1, 7, 101)));
}

TEST(PosixFailureTest, LackOfSpaceIsToldApart) {
  using hosts::posix::fail;
  EXPECT_THROW(fail(ENOSPC, "write"), OutOfSpaceNfsException);
  EXPECT_THROW(fail(EDQUOT, "write"), OutOfSpaceNfsException);
  expectRefused([] { fail(EACCES, "open [/a]"); }, "Cannot open [/a]: Permission denied.");
}

}  // namespace nfslib
