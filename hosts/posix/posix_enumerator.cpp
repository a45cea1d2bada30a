#include "posix/posix_enumerator.h"

#include "posix/attributes.h"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace nfslib::hosts::posix {

namespace {

constexpr std::size_t kBufferSize = 64 * 1024;
constexpr std::size_t kFirstBatch = 128;
constexpr std::size_t kBatch = 1024;
constexpr std::size_t kShare = 16;  // entries that are claimed at a time
constexpr std::chrono::seconds kLongestAhead{1};

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
  readNames(*m_current, kFirstBatch);
  m_changes = m_tree->changes.ended();
  MoveNext();
}

PosixEnumerator::~PosixEnumerator() {
  for (Batch& batch : m_batches) batch.unclaimed = batch.size;
}

void PosixEnumerator::MoveNext() {
  m_valid = false;
  while (m_next < m_current->size || turnToNextBatch()) {
    Entry& entry = m_current->entries[m_next++];
    if (entry.state == State::Unread || !isFresh(*m_current)) readAttributes(entry);
    m_valid = entry.state == State::Known;
    if (m_valid) return;
  }
}

bool PosixEnumerator::turnToNextBatch() {
  if (m_ahead->size == 0) lookAhead();
  if (m_ahead->size == 0) {
    if (m_error != 0) fail(m_error, "list the directory " + m_directory.shown());
    return false;
  }
  if (m_ahead->reader.valid()) {
    readAttributes(*m_ahead);
    m_ahead->reader.wait();
  }
  std::swap(m_current, m_ahead);
  m_next = 0;
  lookAhead();
  return true;
}

void PosixEnumerator::lookAhead() {
  Batch& batch = *m_ahead;
  readNames(batch, kBatch);
  batch.unclaimed = 0;
  batch.reader = {};
  batch.changes = m_tree->changes.ended();
  batch.begun = std::chrono::steady_clock::now();
  // Where changes come one after the other, reading ahead would be in vain.
  const bool isQuiet = std::exchange(m_changes, batch.changes) == batch.changes;
  if (!isQuiet || batch.size <= kFirstBatch) return;
  try {
    batch.reader = std::async(std::launch::async, [this, &batch] { readAttributes(batch); });
  } catch (const std::system_error&) {
    // No thread is to be had: each entry is read when it is its turn, as always where nothing was
    // read ahead.
  }
}

void PosixEnumerator::readAttributes(Batch& batch) {
  for (;;) {
    const std::size_t begin = batch.unclaimed.fetch_add(kShare);
    if (begin >= batch.size) return;
    const std::size_t end = std::min(begin + kShare, batch.size);
    for (std::size_t i = begin; i < end; ++i) readAttributes(batch.entries[i]);
  }
}

void PosixEnumerator::readAttributes(Entry& entry) {
  struct statx status;
  const bool isThere = readStatus(m_directory.get(), entry.value.name.c_str(), status);
  if (isThere) entry.value.metaData = toMetaData(status, m_tree->ids.of(status));
  entry.state = isThere ? State::Known : State::LeftOut;
}

bool PosixEnumerator::isFresh(const Batch& batch) const {
  return m_tree->changes.noneSince(batch.changes) &&
         std::chrono::steady_clock::now() - batch.begun < kLongestAhead;
}

void PosixEnumerator::readNames(Batch& batch, std::size_t limit) {
  batch.size = 0;
  if (batch.entries.size() < limit) batch.entries.resize(limit);
  while (batch.size < limit) {
    const char* const name = nextName();
    if (name == nullptr) return;
    if (isSelfOrParent(name)) continue;
    Entry& entry = batch.entries[batch.size++];
    entry.value.name = name;
    entry.state = State::Unread;
  }
}

const char* PosixEnumerator::nextName() {
  if (m_position == m_end) {
    if (m_allListed) return nullptr;
    const ssize_t read =
        retried([&] { return ::getdents64(m_directory.get(), m_buffer.data(), m_buffer.size()); });
    // A directory that was removed has no entries any more.
    if (read < 0 && errno != ENOENT) m_error = errno;
    m_allListed = read <= 0;
    if (m_allListed) return nullptr;
    m_position = 0;
    m_end = static_cast<std::size_t>(read);
  }
  const char* record = m_buffer.data() + m_position;
  unsigned short length = 0;
  std::memcpy(&length, record + offsetof(struct dirent64, d_reclen), sizeof length);
  m_position += length;
  return record + offsetof(struct dirent64, d_name);
}

}  // namespace nfslib::hosts::posix
