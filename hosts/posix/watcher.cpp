#include "posix/watcher.h"

#include <nfslib/log.h>

#include "posix/attributes.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace nfslib::hosts::posix {

namespace {

constexpr std::uint32_t kEvents = IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                  IN_MOVED_TO | IN_ONLYDIR | IN_EXCL_UNLINK;
constexpr std::size_t kBufferSize = 64 * 1024;
// Both halves of a rename are reported at once, but for what other processors put in between.
constexpr int kOtherHalfMilliseconds = 20;

NfsPath shown(const std::string& path) { return NfsPath("/" + path); }

std::string within(const std::string& directory, const std::string& name) {
  return directory.empty() ? name : directory + '/' + name;
}

// In the order of a map the paths at `top` and below are among those that begin with its text.
bool isAtOrBelow(const std::string& path, const std::string& top) {
  if (top.empty() || path == top) return true;
  return path.size() > top.size() && path.starts_with(top) && path[top.size()] == '/';
}

}  // namespace

std::string Watcher::Entry::path() const {
  return name.empty() ? directory : within(directory, name);
}

Watcher::Watcher(std::shared_ptr<Tree> tree, InvalidationListener listener,
                 std::size_t mostDirectories)
    : m_tree(std::move(tree)),
      m_listener(std::move(listener)),
      m_most(mostDirectories),
      m_inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      m_stop(::eventfd(0, EFD_CLOEXEC)) {
  try {
    if (!m_inotify || !m_stop) throw std::system_error(errno, std::generic_category());
    m_tree->changes.remember();
    m_thread = std::thread([this] { run(); });
  } catch (const std::system_error& e) {
    const std::lock_guard lock(m_lock);
    sayFull(e.code().message());
    m_isFull = true;
  }
}

Watcher::~Watcher() {
  if (!m_thread.joinable()) return;
  ::eventfd_write(m_stop.get(), 1);
  m_thread.join();
}

// ---- Watches

bool Watcher::watch(const NfsPath& directory) {
  const std::string path = directory.str().substr(1);
  const std::lock_guard lock(m_lock);
  if (m_watches.contains(path)) return true;
  if (!m_watches.contains("") && !add("")) return false;
  for (std::size_t end = 0; end < path.size(); ++end) {
    end = std::min(path.find('/', end), path.size());
    const std::string part = path.substr(0, end);
    if (!m_watches.contains(part) && !add(part)) return false;
  }
  return true;
}

bool Watcher::add(const std::string& path) {
  if (m_isFull) return false;
  if (m_paths.size() >= m_most) {
    sayFull("the limit of " + std::to_string(m_most) + " directories is reached");
    return false;
  }
  const auto watch = watchOn(path);
  if (!watch) {
    if (errno == ENOSPC || errno == ENOMEM) {
      sayFull(std::generic_category().message(errno) +
              "; raise the sysctl fs.inotify.max_user_watches");
      m_isFull = true;
    }
    return false;
  }
  if (const auto known = m_paths.find(*watch); known != m_paths.end()) {
    // It was renamed, which has not been reported yet, or it is in two places (a mount).
    const std::string before = known->second;
    if (watchOn(before) == watch) return false;
    moveTree(before, path);
    return true;
  }
  m_paths.emplace(*watch, path);
  m_watches.emplace(path, *watch);
  return true;
}

std::optional<Watcher::Watch> Watcher::watchOn(const std::string& path) {
  const Descriptor directory = m_tree->openDirectory(path);
  if (!directory) return std::nullopt;
  const int watch =
      ::inotify_add_watch(m_inotify.get(), procName(directory.get()).c_str(), kEvents);
  if (watch < 0) return std::nullopt;
  return watch;
}

void Watcher::drop(Watch watch) {
  const auto at = m_paths.find(watch);
  if (at == m_paths.end()) return;
  m_watches.erase(at->second);
  m_paths.erase(at);
}

void Watcher::dropTree(const std::string& path) {
  std::vector<Watch> gone;
  for (auto at = m_watches.lower_bound(path); at != m_watches.end() && at->first.starts_with(path);
       ++at) {
    if (isAtOrBelow(at->first, path)) gone.push_back(at->second);
  }
  for (const Watch watch : gone) {
    ::inotify_rm_watch(m_inotify.get(), watch);
    drop(watch);
  }
}

void Watcher::moveTree(const std::string& from, const std::string& to) {
  dropTree(to);
  std::vector<std::pair<std::string, Watch>> moved;
  for (auto at = m_watches.lower_bound(from); at != m_watches.end() && at->first.starts_with(from);
       ++at) {
    if (isAtOrBelow(at->first, from)) moved.emplace_back(*at);
  }
  for (const auto& [path, watch] : moved) m_watches.erase(path);
  for (const auto& [path, watch] : moved) {
    const std::string now = to + path.substr(from.size());
    m_watches[now] = watch;
    m_paths[watch] = now;
  }
}

void Watcher::sayFull(const std::string& why) {
  if (std::exchange(m_saidFull, true)) return;
  CNfsLibLogger::getInstance().getImpl()->warn(
      "Not every directory can be watched for changes by others: [%1]. What is in the rest is read "
      "anew for each request, which takes longer.",
      why);
}

// ---- Reports

void Watcher::run() {
  std::array<pollfd, 2> sources{pollfd{m_inotify.get(), POLLIN, 0},
                                pollfd{m_stop.get(), POLLIN, 0}};
  while (sources[1].revents == 0) {
    const int ready =
        ::poll(sources.data(), sources.size(), m_leaving ? kOtherHalfMilliseconds : -1);
    if (ready < 0) continue;
    if (ready == 0) giveUpLeaving();
    if (sources[0].revents != 0) read();
  }
}

void Watcher::read() {
  alignas(struct inotify_event) std::array<char, kBufferSize> buffer;
  const ssize_t size =
      retried([&] { return ::read(m_inotify.get(), buffer.data(), buffer.size()); });
  for (ssize_t at = 0; at < size;) {
    struct inotify_event event {};
    std::memcpy(&event, buffer.data() + at, sizeof event);
    const char* const name = event.len == 0 ? "" : buffer.data() + at + sizeof event;
    at += static_cast<ssize_t>(sizeof event + event.len);
    try {
      take(event, name);
    } catch (const std::exception& e) {
      CNfsLibLogger::getInstance().getImpl()->warn(
          "A change by others could not be looked at: [%1]. Everything is read anew.",
          std::string(e.what()));
      startAnew();
    }
  }
}

void Watcher::take(const struct inotify_event& event, const char* name) {
  if ((event.mask & IN_Q_OVERFLOW) != 0) return startAnew();
  Entry entry;
  {
    const std::lock_guard lock(m_lock);
    const auto at = m_paths.find(event.wd);
    if (at == m_paths.end()) return;
    entry = {at->second, name, (event.mask & IN_ISDIR) != 0 || *name == '\0'};
    if ((event.mask & IN_IGNORED) != 0) return drop(event.wd);
  }
  takeEntry(event, std::move(entry));
}

void Watcher::takeEntry(const struct inotify_event& event, Entry entry) {
  if ((event.mask & IN_UNMOUNT) != 0) {
    return tell({.path = shown(entry.path()), .scope = Invalidation::Scope::Tree});
  }
  const auto scope = entry.isDirectory && (event.mask & (IN_MODIFY | IN_ATTRIB)) == 0
                         ? Invalidation::Scope::Tree
                         : Invalidation::Scope::Object;
  if (m_leaving && (event.mask & IN_MOVED_TO) == 0) giveUpLeaving();
  if ((event.mask & IN_MOVED_FROM) != 0) {
    const bool isOwn = takeOwn(Changes::Kind::MovedAway, entry);
    m_leaving = Leaving{std::move(entry), event.cookie, isOwn};
  } else if ((event.mask & IN_MOVED_TO) != 0) {
    arrive(event, entry, takeOwn(Changes::Kind::MovedHere, entry));
  } else if ((event.mask & (IN_CREATE | IN_DELETE)) != 0) {
    const bool isNew = (event.mask & IN_CREATE) != 0;
    if (takeOwn(isNew ? Changes::Kind::Made : Changes::Kind::Removed, entry)) return;
    tellDirectory(entry);
    tell({.path = shown(entry.path()), .scope = scope});
  } else if (!isOwnChange(entry)) {
    tell({.path = shown(entry.path()), .scope = scope});
  }
}

void Watcher::arrive(const struct inotify_event& event, const Entry& entry, bool isOwn) {
  const auto scope = entry.isDirectory ? Invalidation::Scope::Tree : Invalidation::Scope::Object;
  if (m_leaving && m_leaving->cookie != event.cookie) giveUpLeaving();
  const auto from = std::exchange(m_leaving, std::nullopt);
  if (from && entry.isDirectory) {
    const std::lock_guard lock(m_lock);
    if (m_watches.contains(from->entry.path())) {
      // Whatever has these names by now: the watch tells which directory it is.
      const auto watch = watchOn(entry.path());
      const auto known = watch ? m_paths.find(*watch) : m_paths.end();
      if (known == m_paths.end()) {
        if (watch) ::inotify_rm_watch(m_inotify.get(), *watch);
      } else if (known->second != entry.path()) {
        moveTree(std::string(known->second), entry.path());
      }
    }
  }
  if (isOwn) return;
  if (from) tellDirectory(from->entry);
  tellDirectory(entry);
  const auto status = statusOf(entry);
  if (from && status) {
    tell({.path = shown(from->entry.path()),
          .scope = scope,
          .movedTo = shown(entry.path()),
          .fileId = m_tree->ids.of(*status)});
  } else {
    if (from) tell({.path = shown(from->entry.path()), .scope = scope});
    tell({.path = shown(entry.path()), .scope = scope});
  }
}

void Watcher::giveUpLeaving() {
  const auto left = std::exchange(m_leaving, std::nullopt);
  if (!left) return;
  const std::string path = left->entry.path();
  if (left->entry.isDirectory) {
    const std::lock_guard lock(m_lock);
    const auto at = m_watches.find(path);
    // Another directory may have the name by now.
    if (at != m_watches.end() && watchOn(path) != at->second) dropTree(path);
  }
  if (left->isOwn) return;
  tellDirectory(left->entry);
  tell(
      {.path = shown(path),
       .scope = left->entry.isDirectory ? Invalidation::Scope::Tree : Invalidation::Scope::Object});
}

// Renames may be among the reports that were lost, so no watch's path is sure any more.
void Watcher::startAnew() {
  m_leaving.reset();
  {
    const std::lock_guard lock(m_lock);
    dropTree("");
  }
  m_tree->changes.forget();
  tell({.path = NfsPath("/"), .scope = Invalidation::Scope::Tree});
}

bool Watcher::takeOwn(Changes::Kind kind, const Entry& entry) {
  const auto paused = m_tree->changes.pause();
  return m_tree->changes.takeOwn(kind, entry.directory, entry.name);
}

bool Watcher::isOwnChange(const Entry& entry) {
  const auto paused = m_tree->changes.pause();
  const auto status = statusOf(entry);
  // What is not there any more went by a change that is reported next.
  return !status || m_tree->changes.isOwn(*status);
}

std::optional<struct statx> Watcher::statusOf(const Entry& entry) const {
  struct statx status {};
  const Descriptor directory = m_tree->openDirectory(entry.directory);
  const bool isThere =
      directory && (entry.name.empty() ? readStatus(directory.get(), status)
                                       : readStatus(directory.get(), entry.name.c_str(), status));
  if (!isThere) return std::nullopt;
  return status;
}

void Watcher::tell(const Invalidation& what) const { m_listener(what); }

void Watcher::tellDirectory(const Entry& entry) const { tell({.path = shown(entry.directory)}); }

}  // namespace nfslib::hosts::posix
