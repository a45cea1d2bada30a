#include "posix/posix_file.h"

#include <nfslib/exception.h>

#include "posix/attributes.h"

#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace nfslib::hosts::posix {

namespace {

// Calls `transfer(done)` for the rest until `length` bytes are through, a call returns 0 (the end
// of the file), or one fails (then errno is set and `failed`).
struct Transfer {
  unsigned long done = 0;
  bool failed = false;
};

template <class Call>
Transfer transferAll(unsigned long length, Call transfer) {
  Transfer result;
  while (result.done < length) {
    const ssize_t count = retried([&] { return transfer(result.done); });
    result.failed = count < 0;
    if (count <= 0) break;
    result.done += static_cast<unsigned long>(count);
  }
  return result;
}

// File offsets are signed.
void requireOffset(unsigned long offset, unsigned long length, const std::string& shown) {
  if (offset > INT64_MAX || length > INT64_MAX - offset) {
    fail(EFBIG, "reach byte " + std::to_string(offset) + " of " + shown);
  }
}

}  // namespace

PosixFile::PosixFile(std::shared_ptr<Tree> tree, Descriptor descriptor, Access access,
                     std::uint64_t fileId, std::string shown)
    : m_tree(std::move(tree)),
      m_opened(std::move(descriptor)),
      m_fileId(fileId),
      m_shown(std::move(shown)) {
  if (access != Access::None) m_readFd = m_opened.get();
  if (access == Access::ReadWrite) m_writeFd = m_opened.get();
}

unsigned long PosixFile::Read(unsigned long offset, void* buffer, unsigned long length) {
  requireOffset(offset, length, m_shown);
  int fd = m_readFd;
  Descriptor again;
  if (fd < 0) {
    // It could not be read when it was opened. Its mode may be another by now.
    again = Descriptor(
        retried([&] { return ::open(procName(m_opened.get()).c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!again) fail(errno, "read " + m_shown);
    fd = again.get();
  }
  auto* const bytes = static_cast<char*>(buffer);
  const Transfer read = transferAll(length, [&](unsigned long done) {
    return ::pread(fd, bytes + done, length - done, static_cast<off_t>(offset + done));
  });
  if (read.failed) fail(errno, "read " + m_shown);
  return read.done;
}

unsigned long PosixFile::Write(unsigned long offset, const void* data, unsigned long length) {
  requireOffset(offset, length, m_shown);
  const int fd = writable();
  Changes::Scope change(m_tree->changes);
  const auto* const bytes = static_cast<const char*>(data);
  struct stat before {};
  const bool sizeKnown = ::fstat(fd, &before) == 0;
  const Transfer written = transferAll(length, [&](unsigned long done) {
    return ::pwrite(fd, bytes + done, length - done, static_cast<off_t>(offset + done));
  });
  if (written.done == length) {
    change.left(fd);
    return length;
  }
  const int error = written.failed ? errno : EIO;
  if (sizeKnown) cutBack(fd, static_cast<std::uint64_t>(before.st_size), offset + written.done);
  fail(error, "write to " + m_shown);
}

void PosixFile::cutBack(int fd, std::uint64_t size, std::uint64_t offset) const {
  struct stat after {};
  // Only while nobody else has made it longer yet.
  if (offset > size && ::fstat(fd, &after) == 0 &&
      static_cast<std::uint64_t>(after.st_size) == offset) {
    static_cast<void>(retried([&] { return ::ftruncate(fd, static_cast<off_t>(size)); }));
  }
}

MetaData PosixFile::GetMetaData() const {
  const int fd = m_readFd;
  return readMetaData(fd >= 0 ? fd : m_opened.get(), m_fileId, m_shown);
}

void PosixFile::SetMetaData(const MetaData& md) {
  // Opened before anything is changed: it fails more easily than the rest, and a new mode or owner
  // may forbid it.
  if (md.size != GetMetaData().size) {
    requireOffset(md.size, 0, m_shown);
    writable();
  }
  changeMetaData(*m_tree, m_opened.get(), md, m_shown, [&](std::uint64_t size) {
    const int fd = m_writeFd;
    return retried([&] { return ::ftruncate(fd, static_cast<off_t>(size)); }) == 0;
  });
}

int PosixFile::writable() {
  if (const int fd = m_writeFd; fd >= 0) return fd;
  const std::lock_guard lock(m_writeLock);
  if (const int fd = m_writeFd; fd >= 0) return fd;
  m_openedForWriting = openForWriting();
  const int fd = m_openedForWriting.get();
  const int flags = ::fcntl(fd, F_GETFL);
  // Where a file is copied on its first write, the descriptor from before stays with the original.
  if (flags >= 0 && (flags & O_ACCMODE) == O_RDWR) m_readFd = fd;
  m_writeFd = fd;
  return fd;
}

Descriptor PosixFile::openForWriting() const {
  const std::string name = procName(m_opened.get());
  const auto open = [&](int access) {
    return Descriptor(retried([&] { return ::open(name.c_str(), access | O_CLOEXEC); }));
  };
  if (Descriptor opened = open(O_RDWR)) return opened;
  if (errno == EACCES) {
    if (Descriptor opened = open(O_WRONLY)) return opened;
  }
  int error = errno;
  // Who creates a file 0444 goes on to write it, and NFS has no descriptor that would allow that.
  // The owner might change the mode at any time; so do we, for this moment.
  const std::lock_guard lock(m_tree->modeLock);
  Changes::Scope change(m_tree->changes);
  struct stat status {};
  if (error == EACCES && ::fstat(m_opened.get(), &status) == 0 && status.st_uid == ::geteuid() &&
      ::chmod(name.c_str(), (status.st_mode & 07777) | S_IRUSR | S_IWUSR) == 0) {
    Descriptor opened = open(O_RDWR);
    error = errno;
    static_cast<void>(::chmod(name.c_str(), status.st_mode & 07777));
    change.left(m_opened.get());
    if (opened) return opened;
  }
  fail(error, "open " + m_shown + " for writing");
}

}  // namespace nfslib::hosts::posix
