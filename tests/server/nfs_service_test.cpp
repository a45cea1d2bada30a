#include "server/nfs_service.h"

#include "fs/nfs_file_system.h"
#include "support/counting_tree.h"
#include "support/failure_of.h"
#include "support/recorded_log.h"

#include <atomic>
#include <ctime>
#include <future>
#include <stdexcept>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using Scope = Invalidation::Scope;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

class NfsServiceTest : public ::testing::Test {
 protected:
  bool add(const NfsPath& path) { return service.exportFileSystem(path, tree, {}); }

  const NfsPath a{"/a"};
  const NfsPath b{"/b"};
  CountingTree tree{{"/d", "/d/e"}};
  NfsService service;
  RecordedLog log;
};

TEST_F(NfsServiceTest, NumbersExportsAndNeverAgainTheSame) {
  EXPECT_TRUE(add(a));
  EXPECT_FALSE(add(b));
  EXPECT_EQ(failureOf([&] { add(b); }), "NFS file system [/b] is already exported.");
  EXPECT_EQ(service.getFileSystem(a).first, 1U);
  EXPECT_EQ(service.getFileSystem(b).first, 2U);
  EXPECT_NE(service.getFileSystem(a).second, service.getFileSystem(b).second);
  EXPECT_THAT(service.getExportPaths(), UnorderedElementsAre(a, b));
  EXPECT_FALSE(service.removeExport(a));
  EXPECT_TRUE(service.removeExport(b));
  EXPECT_TRUE(add(a));
  EXPECT_EQ(service.getFileSystem(a).first, 3U);  // the refused one took none
  service.clearExports();
  EXPECT_THAT(service.getExportPaths(), IsEmpty());
  EXPECT_TRUE(add(a));
  EXPECT_EQ(service.getFileSystem(a).first, 4U);
}

TEST_F(NfsServiceTest, SaysWhatItDoes) {
  add(a);
  EXPECT_THAT(log.takeLines(), ElementsAre("info Exporting NFS file system [/a].",
                                           "info This is the first NFS export."));
  add(b);
  EXPECT_THAT(log.takeLines(), ElementsAre("info Exporting NFS file system [/b]."));
  service.removeExport(a);
  EXPECT_EQ(log.takeLines().front(), "info Removing exported NFS file system [/a].");
  service.removeExport(b);
  const auto lines = log.takeLines();
  EXPECT_EQ(lines.at(1), "info This was the last NFS export.");
}

TEST_F(NfsServiceTest, UnknownExportsAreNamedInTheFailure) {
  EXPECT_EQ(failureOf([&] { service.removeExport(a); }), "NFS file system [/a] is not exported.");
  EXPECT_EQ(failureOf([&] { service.getFileSystem(a); }), "NFS export path [/a] is invalid.");
  EXPECT_EQ(failureOf([&] { service.getHandle(a); }), "NFS export path [/a] is invalid.");
  EXPECT_EQ(failureOf([&] {
              service.getFileSystem(NfsHandle{5, 2, 4294967296});
            }),
            "NFS handle [5:2:4294967296] is invalid.");
}

TEST_F(NfsServiceTest, AHandleLeadsBackToItsExport) {
  add(a);
  add(b);
  const NfsHandle root = service.getHandle(b);
  EXPECT_EQ(root, (NfsHandle{service.getGeneration(), 2, 1}));
  const auto [number, view] = service.getFileSystem(root);
  EXPECT_EQ(number, 2U);
  EXPECT_EQ(view, service.getFileSystem(b).second);
  EXPECT_EQ(view->getPath(root), NfsPath("/"));

  service.removeExport(b);
  EXPECT_FALSE(service.isStaleHandle(root));
  EXPECT_THROW(service.getFileSystem(root), std::runtime_error);
  tree.onCall = [](const std::string&) { throw INfsException("gone"); };
  EXPECT_THROW(service.getHandle(a), std::runtime_error);
}

TEST_F(NfsServiceTest, HandlesOfAnotherStartAreStale) {
  const std::uint32_t now = service.getGeneration();
  EXPECT_LE(static_cast<std::uint32_t>(std::time(nullptr)) - now, 60U);
  EXPECT_FALSE(service.isStaleHandle({now, 77, 88}));
  EXPECT_THAT(log.takeLines(), IsEmpty());
  EXPECT_TRUE(service.isStaleHandle({now + 1, 1, 1}));
  log.takeLines();
  EXPECT_TRUE(service.isStaleHandle({0, 1, 2}));
  EXPECT_THAT(log.takeLines(),
              ElementsAre("warn Stale NFS handle [0:1:2]. Handle generation: [0]. File system "
                          "generation: [" +
                          std::to_string(now) + "]."));
}

TEST_F(NfsServiceTest, WaitsForTheRequestsThatUseAWithdrawnView) {
  add(a);
  add(b);
  using Clock = std::chrono::steady_clock;
  EXPECT_TRUE(service.waitForViews(Clock::now()));
  auto view = service.getFileSystem(a).second;
  service.removeExport(a);
  EXPECT_FALSE(service.waitForViews(Clock::now() + 1ms));
  auto waiting =
      std::async(std::launch::async, [&] { return service.waitForViews(Clock::now() + 20s); });
  view.reset();
  EXPECT_TRUE(waiting.get());

  // A view that outlives the service is still good.
  std::shared_ptr<NfsFileSystem> survivor;
  {
    NfsService other;
    other.exportFileSystem(a, tree, {});
    survivor = other.getFileSystem(a).second;
  }
  EXPECT_TRUE(survivor->pathExists(NfsPath("/d")));
}

// A tree may be exported in several places, and a host need not know where.
TEST_F(NfsServiceTest, EveryExportOfATreeLearnsOfAChange) {
  CountingTree other({"/d"});
  add(a);
  add(b);
  service.exportFileSystem(NfsPath("/other"), other, {});
  const NfsPath d("/d");
  const auto sizeIn = [&](const NfsPath& path) {
    return service.getFileSystem(path).second->getMetaData(d).size;
  };
  const auto grow = [&](CountingTree& grown) {
    grown.change("/d", [](MetaData& md) { ++md.size; });
  };
  for (const NfsPath& path : {a, b, NfsPath("/other")}) EXPECT_EQ(sizeIn(path), 0U);
  grow(tree);
  grow(other);
  service.invalidate(tree, {.path = d});
  EXPECT_EQ(sizeIn(a), 1U);
  EXPECT_EQ(sizeIn(b), 1U);
  EXPECT_EQ(sizeIn(NfsPath("/other")), 0U);

  CountingTree unknown;
  EXPECT_NO_THROW(service.invalidate(unknown, {.path = d}));
}

TEST_F(NfsServiceTest, ChangesMayBeToldWhileExportsComeAndGo) {
  std::atomic<bool> stop = false;
  auto telling = std::async(std::launch::async, [&] {
    while (!stop) service.invalidate(tree, {.path = NfsPath("/"), .scope = Scope::Tree});
  });
  // Also from within a call of the host.
  tree.onCall = [&](const std::string&) { service.invalidate(tree, {.path = NfsPath("/d")}); };
  add(b);
  for (int i = 0; i < 300; ++i) {
    add(a);
    EXPECT_TRUE(service.getFileSystem(a).second->pathExists(NfsPath("/d/e")));
    service.removeExport(a);
  }
  EXPECT_TRUE(service.waitForViews(std::chrono::steady_clock::now() + 20s));
  stop = true;
  telling.get();
}

}  // namespace
}  // namespace nfslib::testing
