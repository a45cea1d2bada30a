#include "archive/file_bytes.h"

#include <nfslib/exception.h>

#include "retried.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nfslib::hosts::archive {

namespace {

[[noreturn]] void fail(int error, const std::string& what) {
  throw SystemNfsException(error,
                           "Cannot " + what + ": " + std::generic_category().message(error) + ".");
}

}  // namespace

FileBytes::FileBytes(const std::string& path)
    : m_shown("[" + path + "]"),
      // A pipe would block here until somebody writes to it; it is refused below.
      m_descriptor(
          retried([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); })) {
  if (m_descriptor < 0) fail(errno, "open " + m_shown);
  struct stat status {};
  const int error = ::fstat(m_descriptor, &status) == 0 ? 0 : errno;
  if (error == 0 && S_ISREG(status.st_mode)) {
    m_size = static_cast<std::uint64_t>(status.st_size);
    return;
  }
  ::close(m_descriptor);
  if (error != 0) fail(error, "look at " + m_shown);
  throw SystemNfsException(EINVAL, "Cannot read " + m_shown + ": it is not a regular file.");
}

FileBytes::~FileBytes() { ::close(m_descriptor); }

std::size_t FileBytes::readAt(std::uint64_t offset, void* buffer, std::size_t size) {
  if (offset > INT64_MAX) return 0;
  size = std::min<std::size_t>(size, INT64_MAX - offset);
  auto* const bytes = static_cast<std::byte*>(buffer);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = retried([&] {
      return ::pread(m_descriptor, bytes + done, size - done, static_cast<off_t>(offset + done));
    });
    if (count < 0) fail(errno, "read " + m_shown);
    if (count == 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

}  // namespace nfslib::hosts::archive
