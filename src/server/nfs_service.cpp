#include "server/nfs_service.h"

#include "common/host_failure.h"
#include "common/log.h"
#include "fs/nfs_file_system.h"

#include <algorithm>
#include <stdexcept>

namespace nfslib {

namespace {

std::uint32_t secondsNow() {
  using namespace std::chrono;
  return static_cast<std::uint32_t>(
      duration_cast<seconds>(system_clock::now().time_since_epoch()).count());
}

}  // namespace

NfsService::NfsService() : m_generation(secondsNow()), m_liveViews(std::make_shared<LiveViews>()) {}

NfsService::~NfsService() = default;

void NfsService::setProfile(const Profile& profile) {
  m_profile = profile;
  renewIdentity();
}

bool NfsService::exportFileSystem(const NfsPath& path, FileSystem& fs, const NfsMountSpec& spec) {
  const std::unique_lock lock(m_exportLock);
  log().info("Exporting NFS file system [%1].", path);
  if (m_numbers.contains(path)) {
    throw std::runtime_error(message("NFS file system [%1] is already exported.", path));
  }
  const auto countDown = [live = m_liveViews](NfsFileSystem* view) {
    std::default_delete<NfsFileSystem>{}(view);
    const std::lock_guard liveLock(live->lock);
    --live->count;
    live->changed.notify_all();
  };
  auto fresh = std::make_unique<NfsFileSystem>(fs, spec, m_profile);
  {
    const std::lock_guard liveLock(m_liveViews->lock);
    ++m_liveViews->count;
  }
  std::shared_ptr<NfsFileSystem> view(fresh.release(), countDown);
  const bool first = m_numbers.empty();
  const std::uint32_t number = m_nextNumber++;
  m_numbers.emplace(path, number);
  m_views.emplace(number, std::move(view));
  markExportsChanged();
  if (first) log().info("This is the first NFS export.");
  return first;
}

bool NfsService::removeExport(const NfsPath& path) {
  std::shared_ptr<NfsFileSystem> view;  // released after the lock: it lets go of the host's objects
  const std::unique_lock lock(m_exportLock);
  log().info("Removing exported NFS file system [%1].", path);
  const auto number = m_numbers.find(path);
  if (number == m_numbers.end()) {
    throw std::runtime_error(message("NFS file system [%1] is not exported.", path));
  }
  view = std::move(m_views.at(number->second));
  m_views.erase(number->second);
  m_numbers.erase(number);
  markExportsChanged();
  if (m_numbers.empty()) log().info("This was the last NFS export.");
  return m_numbers.empty();
}

void NfsService::clearExports() {
  decltype(m_views) views;
  const std::unique_lock lock(m_exportLock);
  m_numbers.clear();
  views.swap(m_views);
  markExportsChanged();
}

void NfsService::invalidate(const FileSystem& fs, const Invalidation& what) {
  std::vector<std::shared_ptr<NfsFileSystem>> views;
  {
    const std::shared_lock lock(m_exportLock);
    for (const auto& [number, view] : m_views) {
      if (view->shows(fs)) views.push_back(view);
    }
  }
  for (const auto& view : views) view->invalidate(what);
}

bool NfsService::waitForViews(std::chrono::steady_clock::time_point deadline) {
  std::size_t exported = 0;
  {
    const std::shared_lock lock(m_exportLock);
    exported = m_views.size();
  }
  std::unique_lock lock(m_liveViews->lock);
  return m_liveViews->changed.wait_until(lock, deadline,
                                         [&] { return m_liveViews->count <= exported; });
}

std::optional<std::uint32_t> NfsService::findExport(const NfsPath& path) const {
  const std::shared_lock lock(m_exportLock);
  const auto number = m_numbers.find(path);
  if (number == m_numbers.end()) return std::nullopt;
  return number->second;
}

std::vector<NfsPath> NfsService::getExportPaths() const {
  const std::shared_lock lock(m_exportLock);
  std::vector<NfsPath> paths;
  paths.reserve(m_numbers.size());
  for (const auto& [path, number] : m_numbers) paths.push_back(path);
  return paths;
}

std::uint32_t NfsService::exportsChanged() const {
  const std::shared_lock lock(m_exportLock);
  return m_exportsChanged;
}

void NfsService::markExportsChanged() {
  m_exportsChanged = std::max(secondsNow(), m_exportsChanged + 1);
}

NfsService::NumberedView NfsService::getFileSystem(const NfsPath& path) const {
  const std::shared_lock lock(m_exportLock);
  const auto number = m_numbers.find(path);
  if (number == m_numbers.end()) {
    throw std::runtime_error(message("NFS export path [%1] is invalid.", path));
  }
  return *m_views.find(number->second);
}

NfsService::NumberedView NfsService::getFileSystem(const NfsHandle& handle) const {
  const std::shared_lock lock(m_exportLock);
  const auto view = m_views.find(handle.fileSystemId);
  if (view == m_views.end()) {
    throw UnknownHandle(message("NFS handle [%1] is invalid.", handle));
  }
  return *view;
}

NfsHandle NfsService::getHandle(const NfsPath& path) {
  const auto [number, view] = getFileSystem(path);
  const NfsPath root("/");
  const MetaData md = view->getMetaData(root);
  return view->getHandle({m_generation, number, 0}, root, md);
}

bool NfsService::isStaleHandle(const NfsHandle& handle) const {
  if (handle.generation == m_generation) return false;
  log().warn("Stale NFS handle [%1]. Handle generation: [%2]. File system generation: [%3].",
             handle, handle.generation, m_generation);
  return true;
}

}  // namespace nfslib
