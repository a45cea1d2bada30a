#include "fs/nfs_file_system.h"
#include "support/counting_tree.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>

#include <gtest/gtest.h>

namespace nfslib::testing {
namespace {

using std::chrono_literals::operator""s;

constexpr auto kPatience = 20s;  // a deadline for what should take no time

NfsMountSpec writable() {
  NfsMountSpec spec;
  spec.writeEnabled = true;
  return spec;
}

bool isReady(std::future<void>& answer) {
  return answer.wait_for(kPatience) == std::future_status::ready;
}

// Everything that is in a cache: none of it may wait for the host.
std::future<void> askForCached(NfsFileSystem& view, const NfsHandle& handle) {
  return std::async(std::launch::async, [&view, handle] {
    view.getMetaData(NfsPath("/quick/f"));
    view.openDirectory(NfsPath("/quick"));
    view.openFile(NfsPath("/quick/f"));
    view.getHandle({}, NfsPath("/quick/f"), {});
    view.closeFile(NfsPath("/quick/none"));
    view.findPath(handle);
    view.openDirectory(NfsPath("/"));
  });
}

NfsHandle warmUp(NfsFileSystem& view) {
  view.openFile(NfsPath("/quick/f"));
  const MetaData md = view.getMetaData(NfsPath("/quick/f"));
  return view.getHandle({}, NfsPath("/quick/f"), md);
}

TEST(NfsFileSystemThreads, ASlowHostCallHoldsUpNobodyElse) {
  const struct {
    const char* hostCall;
    std::function<void(NfsFileSystem&)> run;
  } slowOnes[] = {
      {"OpenSubdir /slow/sub", [](auto& view) { view.openDirectory(NfsPath("/slow/sub")); }},
      {"GetMetaData /slow", [](auto& view) { view.openDirectory(NfsPath("/slow")); }},
      {"GetEntryByName /slow/f", [](auto& view) { view.getMetaData(NfsPath("/slow/f")); }},
      {"OpenFile /slow/f", [](auto& view) { view.openFile(NfsPath("/slow/f")); }},
      {"OpenSymlink /slow/l", [](auto& view) { view.openSymLink(NfsPath("/slow/l")); }},
      {"SetMetaData /slow/f", [](auto& view) { view.setMetaData(NfsPath("/slow/f"), {}); }},
      {"RemoveFile /slow/f", [](auto& view) { view.remove("f", NfsPath("/slow")); }},
      {"Enumerate /slow/sub", [](auto& view) { view.remove("sub", NfsPath("/slow")); }},
      {"MoveEntry /slow/f /slow/g",
       [](auto& view) {
         view.moveEntry("f", NfsPath("/slow"), view.openDirectory(NfsPath("/slow")), "g");
       }},
      {"Enumerate /slow",
       [](auto& view) { view.getDirIterator(view.openDirectory(NfsPath("/slow"))); }},
      // The last holder of a host object closes it: a call like any other.
      {"closed /slow/f",
       [](auto& view) {
         view.openFile(NfsPath("/slow/f"));
         view.closeFile(NfsPath("/slow/f"));
       }},
      {"closed /slow/f",
       [](auto& view) {
         view.openFile(NfsPath("/slow/f"));
         view.remove("f", NfsPath("/slow"));
       }},
      {"closed /slow/f",
       [](auto& view) {
         view.openFile(NfsPath("/slow/f"));
         view.openFile(NfsPath("/slow/l"));
         view.openFile(NfsPath("/quick/g"));
       }},
  };
  for (const auto& slow : slowOnes) {
    CountingTree tree({"/quick", "/slow", "/slow/sub"},
                      {"/quick/f", "/quick/g", "/slow/f", "/slow/l"});
    NfsFileSystem view(tree, writable());
    if (std::string(slow.hostCall).starts_with("closed")) view.openFile(NfsPath("/quick/g"));
    const NfsHandle handle = warmUp(view);

    std::promise<void> reached;
    std::promise<void> goOn;
    std::atomic<bool> isSlow{true};
    tree.onCall = [&](const std::string& call) {
      if (call != slow.hostCall || !isSlow.exchange(false)) return;
      reached.set_value();
      goOn.get_future().wait();
    };
    auto running = std::async(std::launch::async, [&] { slow.run(view); });
    auto arrival = reached.get_future();
    const bool arrived = isReady(arrival);
    EXPECT_TRUE(arrived) << slow.hostCall;
    auto answer = askForCached(view, handle);
    EXPECT_TRUE(isReady(answer)) << slow.hostCall;
    goOn.set_value();
    running.get();
    answer.get();
  }
}

}  // namespace
}  // namespace nfslib::testing
