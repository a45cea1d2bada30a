#pragma once

#include <nfslib/hosts/posix_file_system.h>

#include "posix/changes.h"
#include "posix/object_ids.h"
#include "posix/system.h"
#include "writer_first_mutex.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace nfslib::hosts::posix {

class Tree;

// Where a directory is: its parent's place and its name there. Objects for one directory share its
// place, so a rename through this host is seen by all of them.
class Place {
 public:
  Place(Tree& tree, std::shared_ptr<Place> parent, std::string name);
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
  ~Place();

 private:
  friend class Tree;

  Tree& m_tree;                      // outlives this
  std::shared_ptr<Place> m_parent;   // under Tree::lock; empty for the root
  std::string m_name;                // under Tree::lock
  std::atomic<bool> m_gone = false;  // removed or replaced: another directory may have the name
  std::unordered_map<std::string, std::weak_ptr<Place>> m_children;  // under Tree::m_childrenLock
};

// A directory opened for one operation, and its path below the root ("" for the root itself).
struct OpenDirectory {
  Descriptor descriptor;
  std::string path;

  int get() const { return descriptor.get(); }
  // The directory, or the entry `name` in it, the way messages show it.
  std::string shown() const { return quoted("/" + path); }
  std::string shown(const std::string& name) const {
    return quoted((path.empty() ? "/" : "/" + path + "/") + name);
  }
};

// What all objects of one tree share: the root, the places of the directories in use, the ids.
class Tree {
 public:
  Tree(const std::string& rootDirectory, PosixFileSystem::PathWalk walk);
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  // The root's place; called once.
  std::shared_ptr<Place> rootPlace() { return std::make_shared<Place>(*this, nullptr, ""); }

  // Opens the directory at `place` with the open(2) flags `flags`; throws when it is not there any
  // more. Under `lock`, at least shared.
  OpenDirectory open(const Place& place, int flags) const;

  // The directory that is at `path` now, for a look at it (O_PATH); empty, and errno, when it is
  // not there. Needs no lock: the names on the way may be others' by then.
  Descriptor openDirectory(const std::string& path) const;

  // The place of the subdirectory `name`, which was seen to exist. Under `lock`, at least shared.
  std::shared_ptr<Place> child(const std::shared_ptr<Place>& parent, const std::string& name);
  // The subdirectory `name` was removed or replaced: whoever has it open shall not get at a
  // successor of the same name. Under `lock`, exclusively, unless a new directory was just made.
  void dropChild(Place& parent, const std::string& name);
  // The entry `name`, if it is a directory, is now `newName` in `newParent`, where it replaced what
  // was there. Under `lock`, exclusively.
  void moveChild(Place& parent, const std::string& name, const std::shared_ptr<Place>& newParent,
                 const std::string& newName);

  // Throws INfsException when the system does not tell.
  FileSystemStatistics statistics() const;

  // Frees the places that were waiting for it. To be called after letting go of a place.
  void sweep() noexcept;

  // Names on the way to a directory do not change while this is held shared: by every operation
  // from opening its directory to its end or, if it goes on with the descriptor alone, until then.
  // Held exclusively for removals and renames. Taken first of all.
  WriterFirstMutex lock;
  // Serialises changes of modes with the passing ones of `PosixFile`. Below `lock`.
  std::mutex modeLock;
  ObjectIds ids;
  // Every operation that changes attributes or names has a `Changes::Scope` around doing so.
  Changes changes;

 private:
  friend class Place;

  // The live place called `name`, or an empty pointer. Under `m_childrenLock`.
  static std::shared_ptr<Place> find(const Place& parent, const std::string& name);
  std::string pathOf(const Place& place) const;
  Descriptor openPath(const std::string& path, int flags) const;
  Descriptor openPart(int from, const std::string& part, int flags) const;

  Tree(Descriptor root, PosixFileSystem::PathWalk walk);

  const Descriptor m_root;
  const bool m_walkInKernel;
  // Every place's children, and what follows. Below `lock`, never held during a system call.
  std::mutex m_childrenLock;
  // The parents of places that are gone. Freed from here one after the other: a client decides how
  // long the chain of parents is, so it must not be unwound on the stack.
  std::vector<std::shared_ptr<Place>> m_released;
};

}  // namespace nfslib::hosts::posix
