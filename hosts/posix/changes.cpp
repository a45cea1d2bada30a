#include "posix/changes.h"

#include "posix/attributes.h"

#include <new>

namespace nfslib::hosts::posix {

namespace {

// Reports come within moments, so what is kept longer was not watched.
constexpr std::chrono::seconds kReported{5};
constexpr std::size_t kMostRemembered = 16384;

std::string keyOf(Changes::Kind kind, const std::string& path, const std::string& name) {
  std::string key(1, static_cast<char>(kind));
  return key.append(path).append(1, '/').append(name);
}

std::uint64_t deviceOf(const struct statx& status) {
  return std::uint64_t{status.stx_dev_major} << 32U | status.stx_dev_minor;
}

std::int64_t changeOf(const struct statx& status) {
  return status.stx_ctime.tv_sec * 1'000'000'000 + status.stx_ctime.tv_nsec;
}

}  // namespace

// Without memory to remember it, a change is taken for that of another: clients fetch once more.
void Changes::Scope::happened(Kind kind, const std::string& path,
                              const std::string& name) noexcept {
  if (!m_changes.m_remembers) return;
  try {
    std::string key = keyOf(kind, path, name);
    const auto now = Clock::now();
    const std::lock_guard lock(m_changes.m_lock);
    if (m_changes.m_names.size() >= kMostRemembered) m_changes.m_names.clear();
    m_changes.m_names.emplace(std::move(key), now);
  } catch (const std::bad_alloc&) {
  }
}

void Changes::Scope::left(int fd, const char* name) noexcept {
  if (!m_changes.m_remembers) return;
  struct statx status {};
  if (!(name == nullptr ? readStatus(fd, status) : readStatus(fd, name, status))) return;
  try {
    const std::lock_guard lock(m_changes.m_lock);
    if (m_changes.m_left.size() >= kMostRemembered) m_changes.m_left.clear();
    m_changes.m_left[{deviceOf(status), status.stx_ino}] = changeOf(status);
  } catch (const std::bad_alloc&) {
  }
}

bool Changes::takeOwn(Kind kind, const std::string& path, const std::string& name) {
  const std::string key = keyOf(kind, path, name);
  const auto now = Clock::now();
  const std::lock_guard lock(m_lock);
  for (auto at = m_names.find(key); at != m_names.end(); at = m_names.find(key)) {
    const bool isFresh = now - at->second < kReported;
    m_names.erase(at);
    if (isFresh) return true;
  }
  return false;
}

bool Changes::isOwn(const struct statx& status) const {
  const std::lock_guard lock(m_lock);
  const auto at = m_left.find({deviceOf(status), status.stx_ino});
  return at != m_left.end() && at->second == changeOf(status);
}

void Changes::forget() {
  const std::lock_guard lock(m_lock);
  m_names.clear();
  m_left.clear();
}

}  // namespace nfslib::hosts::posix
