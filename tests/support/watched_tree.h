#pragma once

#include "support/counting_tree.h"

#include <atomic>

namespace nfslib::testing {

// A tree that others change too, and that promises to tell of it while `tells` is set.
class WatchedTree : public CountingTree, public IWatchable {
 public:
  using CountingTree::CountingTree;

  bool Watch(const NfsPath&) override { return tells; }

  std::atomic<bool> tells = true;
};

}  // namespace nfslib::testing
