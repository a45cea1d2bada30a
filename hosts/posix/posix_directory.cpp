#include "posix/posix_directory.h"

#include <nfslib/exception.h>

#include "entry_name.h"
#include "posix/attributes.h"
#include "posix/posix_enumerator.h"
#include "posix/posix_file.h"
#include "posix/posix_symlink.h"

#include <mutex>
#include <shared_mutex>

#include <sys/stat.h>
#include <unistd.h>

namespace nfslib::hosts::posix {

namespace {

// No symbolic link is followed, no terminal taken over, and no named pipe waited for.
constexpr int kSafely = O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;

// The object behind the entry `name`, whatever it is, as a descriptor that opens nothing; empty,
// and errno, when there is none.
Descriptor hold(const OpenDirectory& directory, const std::string& name) {
  return Descriptor(retried(
      [&] { return ::openat(directory.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC); }));
}

// Forgets the id of the object when its last name is gone. While it is held its inode number cannot
// be given to another.
void forgetIfNameless(Tree& tree, const Descriptor& object) {
  struct statx status {};
  // Directories of some file systems keep a link count when removed: those are handled by the
  // caller.
  if (object && readStatus(object.get(), status) && status.stx_nlink == 0) tree.ids.forget(status);
}

void requireRegular(const struct statx& status, const std::string& shown) {
  if (typeOf(status) == FileType::Regular) return;
  throw SystemNfsException(typeOf(status) == FileType::Directory ? EISDIR : EINVAL,
                           shown + " is not a regular file.");
}

bool isAbsence(int error) { return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG; }

}  // namespace

PosixDirectory::~PosixDirectory() {
  m_place.reset();
  m_tree->sweep();
}

OpenDirectory PosixDirectory::open(int flags) const {
  const std::shared_lock lock(m_tree->lock);
  return m_tree->open(*m_place, flags);
}

std::shared_ptr<DirectoryEnumerator> PosixDirectory::Enumerate() const {
  return std::make_shared<PosixEnumerator>(m_tree, open(O_RDONLY));
}

std::shared_ptr<Directory> PosixDirectory::OpenSubdir(const std::string& name) {
  requireEntryName(name);
  const std::shared_lock lock(m_tree->lock);
  const OpenDirectory directory = m_tree->open(*m_place, O_PATH);
  const Descriptor opened(retried([&] {
    return ::openat(directory.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  }));
  if (!opened) fail(errno, "open the directory " + directory.shown(name));
  return std::make_shared<PosixDirectory>(m_tree, m_tree->child(m_place, name));
}

std::shared_ptr<File> PosixDirectory::OpenFile(const std::string& name) {
  requireEntryName(name);
  const OpenDirectory directory = open();
  std::string shown = directory.shown(name);
  struct statx status {};
  // Looked at first, since opening alone does something to some devices.
  if (!readStatus(directory.get(), name.c_str(), status)) fail(errno, "open " + shown);
  requireRegular(status, shown);

  auto access = PosixFile::Access::Read;
  Descriptor file(
      retried([&] { return ::openat(directory.get(), name.c_str(), O_RDONLY | kSafely); }));
  if (!file && (errno == EACCES || errno == EPERM)) {
    // Its attributes may be read and changed all the same.
    access = PosixFile::Access::None;
    file = hold(directory, name);
  }
  if (!file || !readStatus(file.get(), status)) fail(errno, "open " + shown);
  requireRegular(status, shown);
  return std::make_shared<PosixFile>(m_tree, std::move(file), access, m_tree->ids.of(status),
                                     std::move(shown));
}

std::shared_ptr<Symlink> PosixDirectory::OpenSymlink(const std::string& name) {
  requireEntryName(name);
  const OpenDirectory directory = open();
  std::string shown = directory.shown(name);
  Descriptor link = hold(directory, name);
  struct statx status {};
  if (!link || !readStatus(link.get(), status)) fail(errno, "open " + shown);
  if (typeOf(status) != FileType::SymbolicLink) {
    throw SystemNfsException(EINVAL, shown + " is not a symbolic link.");
  }
  return std::make_shared<PosixSymlink>(m_tree, std::move(link), m_tree->ids.of(status),
                                        std::move(shown));
}

MetaData PosixDirectory::GetMetaData() const {
  const OpenDirectory directory = open();
  struct statx status {};
  if (!readStatus(directory.get(), status)) {
    fail(errno, "read the attributes of " + directory.shown());
  }
  return toMetaData(status, m_tree->ids.of(status));
}

void PosixDirectory::SetMetaData(const MetaData& md) {
  const OpenDirectory directory = open();
  changeMetaData(*m_tree, directory.get(), md, directory.shown());
}

std::shared_ptr<Directory> PosixDirectory::CreateSubdir(const std::string& name) {
  requireEntryName(name);
  const std::shared_lock lock(m_tree->lock);
  const OpenDirectory directory = m_tree->open(*m_place, O_PATH);
  Changes::Scope change(m_tree->changes);
  if (::mkdirat(directory.get(), name.c_str(), 0755) != 0) {
    fail(errno, "create the directory " + directory.shown(name));
  }
  change.happened(Changes::Kind::Made, directory.path, name);
  change.left(directory.get());
  change.left(directory.get(), name.c_str());
  // A place that is still known is that of a directory which somebody else removed.
  m_tree->dropChild(*m_place, name);
  return std::make_shared<PosixDirectory>(m_tree, m_tree->child(m_place, name));
}

std::shared_ptr<File> PosixDirectory::CreateFile(const std::string& name) {
  requireEntryName(name);
  const OpenDirectory directory = open();
  std::string shown = directory.shown(name);
  Changes::Scope change(m_tree->changes);
  Descriptor file(retried([&] {
    return ::openat(directory.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | kSafely, 0644);
  }));
  if (file) {
    change.happened(Changes::Kind::Made, directory.path, name);
    change.left(directory.get());
    change.left(file.get());
  }
  struct statx status {};
  if (!file || !readStatus(file.get(), status)) fail(errno, "create the file " + shown);
  return std::make_shared<PosixFile>(m_tree, std::move(file), PosixFile::Access::ReadWrite,
                                     m_tree->ids.of(status), std::move(shown));
}

void PosixDirectory::CreateSymlink(const std::string& name, const std::string& target) {
  requireEntryName(name);
  requireLinkTarget(target);
  const OpenDirectory directory = open();
  Changes::Scope change(m_tree->changes);
  if (::symlinkat(target.c_str(), directory.get(), name.c_str()) != 0) {
    fail(errno, "create the symbolic link " + directory.shown(name));
  }
  change.happened(Changes::Kind::Made, directory.path, name);
  change.left(directory.get());
  change.left(directory.get(), name.c_str());
}

void PosixDirectory::RemoveSubdir(const std::string& name) { remove(name, AT_REMOVEDIR); }

void PosixDirectory::RemoveFile(const std::string& name) { remove(name, 0); }

void PosixDirectory::remove(const std::string& name, int flags) {
  requireEntryName(name);
  Descriptor object;  // let go of after the lock: freeing what a large file holds takes a while
  const std::unique_lock lock(m_tree->lock);
  const OpenDirectory directory = m_tree->open(*m_place, O_PATH);
  object = hold(directory, name);
  Changes::Scope change(m_tree->changes);
  if (!object || ::unlinkat(directory.get(), name.c_str(), flags) != 0) {
    fail(errno, "remove " + directory.shown(name));
  }
  change.happened(Changes::Kind::Removed, directory.path, name);
  change.left(directory.get());
  change.left(object.get());
  forgetIfNameless(*m_tree, object);
  if (flags == AT_REMOVEDIR) m_tree->dropChild(*m_place, name);
}

void PosixDirectory::MoveEntry(const std::string& name, const std::shared_ptr<Directory>& newParent,
                               const std::string& newName) {
  requireEntryName(name);
  requireEntryName(newName);
  const auto target = std::dynamic_pointer_cast<PosixDirectory>(newParent);
  if (!target || target->m_tree != m_tree) {
    throw SystemNfsException(
        EXDEV, "Cannot move " + quoted(name) + " into a directory of another file system.");
  }

  Descriptor replaced;  // let go of after the lock
  const std::unique_lock lock(m_tree->lock);
  const OpenDirectory from = m_tree->open(*m_place, O_PATH);
  const OpenDirectory to = m_tree->open(*target->m_place, O_PATH);
  replaced = hold(to, newName);
  Changes::Scope change(m_tree->changes);
  if (::renameat(from.get(), name.c_str(), to.get(), newName.c_str()) != 0) {
    const int error = errno;
    std::string what = "move " + from.shown(name);
    what += " to " + to.shown(newName);
    // POSIX lets the system call a directory with entries either.
    fail(error == EEXIST ? ENOTEMPTY : error, what);
  }
  change.happened(Changes::Kind::MovedAway, from.path, name);
  change.happened(Changes::Kind::MovedHere, to.path, newName);
  change.left(from.get());
  change.left(to.get());
  change.left(to.get(), newName.c_str());
  forgetIfNameless(*m_tree, replaced);
  m_tree->moveChild(*m_place, name, target->m_place, newName);
}

void PosixDirectory::Link(const std::string& name, const std::shared_ptr<File>& file) {
  requireEntryName(name);
  const auto target = std::dynamic_pointer_cast<PosixFile>(file);
  if (!target || target->tree() != m_tree) {
    throw SystemNfsException(EXDEV,
                             "Cannot link " + quoted(name) + " to a file of another file system.");
  }
  const OpenDirectory directory = open();
  struct stat status {};
  if (::fstat(target->descriptor(), &status) == 0 && status.st_nlink == 0) {
    throw SystemNfsException(ENOENT,
                             "Cannot link " + directory.shown(name) + ": the file was removed.");
  }
  Changes::Scope change(m_tree->changes);
  // By the descriptor: whatever has the file's name by now, the link goes to this very file.
  if (::linkat(AT_FDCWD, procName(target->descriptor()).c_str(), directory.get(), name.c_str(),
               AT_SYMLINK_FOLLOW) != 0) {
    fail(errno, "create the link " + directory.shown(name));
  }
  change.happened(Changes::Kind::Made, directory.path, name);
  change.left(directory.get());
  change.left(target->descriptor());
}

DirEntry PosixDirectory::GetEntryByName(const std::string& name) const {
  requireEntryName(name);
  if (auto entry = TryGetEntryByName(name)) return *std::move(entry);
  throw SystemNfsException(ENOENT, "There is no entry " + quoted(name) + ".");
}

std::optional<DirEntry> PosixDirectory::TryGetEntryByName(const std::string& name) const {
  if (!isEntryName(name)) return std::nullopt;
  const OpenDirectory directory = open();
  struct statx status {};
  if (readStatus(directory.get(), name.c_str(), status)) {
    return DirEntry{name, toMetaData(status, m_tree->ids.of(status))};
  }
  if (!isAbsence(errno)) fail(errno, "read the attributes of " + directory.shown(name));
  return std::nullopt;
}

}  // namespace nfslib::hosts::posix
