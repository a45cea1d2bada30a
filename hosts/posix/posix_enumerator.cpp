#include "posix/posix_enumerator.h"

#include "posix/attributes.h"

#include <cstring>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace nfslib::hosts::posix {

namespace {

constexpr std::size_t kBufferSize = 64 * 1024;

bool isSelfOrParent(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

}  // namespace

PosixEnumerator::PosixEnumerator(std::shared_ptr<Tree> tree, OpenDirectory directory)
    : m_tree(std::move(tree)), m_directory(std::move(directory)), m_buffer(kBufferSize) {
  // Where names may be read and nothing behind them, every entry would be left out: better say so.
  if (::faccessat(m_directory.get(), ".", X_OK, AT_EACCESS) != 0) {
    fail(errno, "look into the directory " + m_directory.shown());
  }
  MoveNext();
}

void PosixEnumerator::MoveNext() {
  m_valid = false;
  while (const char* name = nextName()) {
    struct statx status;
    if (isSelfOrParent(name) || !readStatus(m_directory.get(), name, status)) continue;
    m_entry.name = name;
    m_entry.metaData = toMetaData(status, m_tree->ids.of(status));
    m_valid = true;
    return;
  }
}

const char* PosixEnumerator::nextName() {
  if (m_position == m_end) {
    const ssize_t read =
        retried([&] { return ::getdents64(m_directory.get(), m_buffer.data(), m_buffer.size()); });
    // A directory that was removed has no entries any more.
    if (read < 0 && errno != ENOENT) fail(errno, "list the directory " + m_directory.shown());
    m_position = 0;
    m_end = read > 0 ? static_cast<std::size_t>(read) : 0;
    if (m_end == 0) return nullptr;
  }
  const char* record = m_buffer.data() + m_position;
  unsigned short length = 0;
  std::memcpy(&length, record + offsetof(struct dirent64, d_reclen), sizeof length);
  m_position += length;
  return record + offsetof(struct dirent64, d_name);
}

}  // namespace nfslib::hosts::posix
