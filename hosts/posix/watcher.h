#pragma once

#include <nfslib/invalidation.h>
#include <nfslib/nfs_path.h>

#include "posix/system.h"
#include "posix/tree.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>

struct inotify_event;

namespace nfslib::hosts::posix {

// Has the system report what happens in the directories of a tree (inotify), and tells of what was
// not done through the tree. One descriptor and one thread, for as long as this lives.
//
// Directories are watched when they are asked for, each with all those above it, as many as the
// limit and the system allow; then the log says once that there are no more. Watches stay with
// their directories: when one is renamed, by whomever, the paths that are told follow.
class Watcher {
 public:
  // The listener is called on the watcher's thread, with no lock held.
  Watcher(std::shared_ptr<Tree> tree, InvalidationListener listener, std::size_t mostDirectories);
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;
  ~Watcher();

  // See IWatchable::Watch. Any thread.
  bool watch(const NfsPath& directory);

 private:
  using Watch = int;  // inotify's number
  // A directory's path is that of its place in the tree: "" for the root, without a "/" in front.
  struct Entry {
    std::string directory;
    std::string name;  // "": the directory itself
    bool isDirectory = false;

    std::string path() const;
  };
  struct Leaving {
    Entry entry;
    std::uint32_t cookie = 0;
    bool isOwn = false;
  };

  // ---- Under m_lock

  bool add(const std::string& path);
  // The watch on what is at `path` now, an older one if there is one; empty, and errno.
  std::optional<Watch> watchOn(const std::string& path);
  void drop(Watch watch);
  void dropTree(const std::string& path);
  void moveTree(const std::string& from, const std::string& to);
  void sayFull(const std::string& why);

  // ---- The watcher's thread

  void run();
  void read();
  void take(const struct inotify_event& event, const char* name);
  void takeEntry(const struct inotify_event& event, Entry entry);
  void arrive(const struct inotify_event& event, const Entry& entry, bool isOwn);
  // What left and has not come back is in no place that is watched.
  void giveUpLeaving();
  void startAnew();
  bool isOwnChange(const Entry& entry);
  bool takeOwn(Changes::Kind kind, const Entry& entry);
  std::optional<struct statx> statusOf(const Entry& entry) const;
  void tell(const Invalidation& what) const;
  void tellDirectory(const Entry& entry) const;

  const std::shared_ptr<Tree> m_tree;
  const InvalidationListener m_listener;
  const std::size_t m_most;
  Descriptor m_inotify;
  Descriptor m_stop;

  // Guards the fields below; held while a watch is set, so that what it reports finds it here.
  // Nothing else is locked under it.
  std::mutex m_lock;
  std::map<std::string, Watch> m_watches;
  std::unordered_map<Watch, std::string> m_paths;
  bool m_isFull = false;  // the system has no more
  bool m_saidFull = false;

  std::optional<Leaving> m_leaving;  // of the watcher's thread
  std::thread m_thread;              // last: it uses all of the above
};

}  // namespace nfslib::hosts::posix
