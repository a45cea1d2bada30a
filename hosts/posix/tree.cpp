#include "posix/tree.h"

#include <nfslib/exception.h>

#include <algorithm>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace nfslib::hosts::posix {

namespace {

// The longest path that the kernel takes in one call, without the final NUL.
constexpr std::size_t kLongestPath = 4095;

int openBeneath(int from, const char* path, int flags) {
  struct open_how how {};
  how.flags = static_cast<unsigned>(flags);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  return static_cast<int>(
      retried([&] { return ::syscall(SYS_openat2, from, path, &how, sizeof how); }));
}

Descriptor openRoot(const std::string& directory) {
  Descriptor root(
      retried([&] { return ::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
  if (!root) fail(errno, "open the directory " + quoted(directory));
  return root;
}

// Seccomp filters answer unknown calls with EPERM or ENOSYS.
bool kernelWalksBeneath(int root) {
  return static_cast<bool>(Descriptor(openBeneath(root, ".", O_PATH | O_DIRECTORY | O_CLOEXEC)));
}

// An overlay gives a file a new time of birth when it copies it up for its first write.
bool birthTimesStay(int root) {
  struct statfs status {};
  return ::fstatfs(root, &status) == 0 && status.f_type != OVERLAYFS_SUPER_MAGIC;
}

}  // namespace

FileSystemStatistics Tree::statistics() const {
  struct statvfs told {};
  if (retried([&] { return ::fstatvfs(m_root.get(), &told); }) != 0) {
    fail(errno, "read the statistics of the file system");
  }
  return {.totalBytes = told.f_blocks * told.f_frsize,
          .freeBytes = told.f_bfree * told.f_frsize,
          .availableBytes = told.f_bavail * told.f_frsize,
          .totalFiles = told.f_files,
          .freeFiles = told.f_ffree,
          .availableFiles = told.f_favail};
}

Place::Place(Tree& tree, std::shared_ptr<Place> parent, std::string name)
    : m_tree(tree), m_parent(std::move(parent)), m_name(std::move(name)) {}

Place::~Place() {
  if (!m_parent) return;
  const std::lock_guard guard(m_tree.m_childrenLock);
  const auto at = m_parent->m_children.find(m_name);
  if (at != m_parent->m_children.end() && at->second.expired()) m_parent->m_children.erase(at);
  m_tree.m_released.push_back(std::move(m_parent));
}

void Tree::sweep() noexcept {
  std::vector<std::shared_ptr<Place>> released;
  do {
    released.clear();  // which may release more
    const std::lock_guard guard(m_childrenLock);
    released.swap(m_released);
  } while (!released.empty());
}

Tree::Tree(const std::string& rootDirectory, PosixFileSystem::PathWalk walk)
    : Tree(openRoot(rootDirectory), walk) {}

Tree::Tree(Descriptor root, PosixFileSystem::PathWalk walk)
    : ids(birthTimesStay(root.get())),
      m_root(std::move(root)),
      m_walkInKernel(walk == PosixFileSystem::PathWalk::Automatic &&
                     kernelWalksBeneath(m_root.get())) {}

OpenDirectory Tree::open(const Place& place, int flags) const {
  OpenDirectory opened;
  opened.path = pathOf(place);
  opened.descriptor = openPath(opened.path, flags | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (!opened.descriptor) fail(errno, "open the directory " + opened.shown());
  return opened;
}

Descriptor Tree::openDirectory(const std::string& path) const {
  return openPath(path, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

std::string Tree::pathOf(const Place& place) const {
  std::vector<const Place*> way;
  bool gone = false;
  std::size_t length = 0;
  for (const Place* at = &place; at->m_parent; at = at->m_parent.get()) {
    way.push_back(at);
    gone = gone || at->m_gone;
    length += at->m_name.size() + 1;
  }
  std::string path;
  path.reserve(length);
  std::for_each(way.rbegin(), way.rend(), [&](const Place* at) {
    if (!path.empty()) path += '/';
    path += at->m_name;
  });
  if (gone)
    throw SystemNfsException(ENOENT, "The directory " + quoted("/" + path) + " was removed.");
  return path;
}

// In parts that the kernel takes: as long as possible, or one name each.
Descriptor Tree::openPath(const std::string& path, int flags) const {
  if (path.empty()) return openPart(m_root.get(), ".", flags);
  Descriptor at;
  for (std::size_t begin = 0; begin < path.size();) {
    std::size_t end = path.size();
    if (!m_walkInKernel) {
      end = std::min(end, path.find('/', begin));
    } else if (end - begin > kLongestPath) {
      end = path.rfind('/', begin + kLongestPath);
    }
    const bool isLast = end == path.size();
    at = openPart(at ? at.get() : m_root.get(), path.substr(begin, end - begin),
                  isLast ? flags : O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (!at) break;
    begin = end + 1;
  }
  return at;
}

Descriptor Tree::openPart(int from, const std::string& part, int flags) const {
  if (m_walkInKernel) return Descriptor(openBeneath(from, part.c_str(), flags));
  return Descriptor(retried([&] { return ::openat(from, part.c_str(), flags); }));
}

std::shared_ptr<Place> Tree::find(const Place& parent, const std::string& name) {
  const auto at = parent.m_children.find(name);
  return at == parent.m_children.end() ? nullptr : at->second.lock();
}

std::shared_ptr<Place> Tree::child(const std::shared_ptr<Place>& parent, const std::string& name) {
  // Made outside the lock, which the destructor takes.
  auto fresh = std::make_shared<Place>(*this, parent, name);
  std::shared_ptr<Place> known;
  const std::lock_guard guard(m_childrenLock);
  known = find(*parent, name);
  if (known) return known;
  parent->m_children.insert_or_assign(name, fresh);
  return fresh;
}

void Tree::dropChild(Place& parent, const std::string& name) {
  std::shared_ptr<Place> gone;  // let go of after the lock
  const std::lock_guard guard(m_childrenLock);
  gone = find(parent, name);
  if (gone) gone->m_gone = true;
  parent.m_children.erase(name);
}

void Tree::moveChild(Place& parent, const std::string& name,
                     const std::shared_ptr<Place>& newParent, const std::string& newName) {
  if (&parent == newParent.get() && name == newName) return;
  dropChild(*newParent, newName);

  std::shared_ptr<Place> moved;  // both let go of after the lock
  std::shared_ptr<Place> oldParent;
  const std::lock_guard guard(m_childrenLock);
  moved = find(parent, name);
  parent.m_children.erase(name);
  if (!moved) return;
  // The system let the rename pass, so if the new parent was below the moved directory, it is no
  // longer where we think: others moved it. Places must not run in a circle.
  const Place* at = newParent.get();
  while (at != nullptr && at != moved.get()) at = at->m_parent.get();
  if (at != nullptr) {
    moved->m_gone = true;
    return;
  }
  oldParent = std::exchange(moved->m_parent, newParent);
  moved->m_name = newName;
  newParent->m_children.insert_or_assign(newName, moved);
}

}  // namespace nfslib::hosts::posix
