#include "nfs4/read_write_directory_cache.h"

#include <vector>

namespace nfslib::nfs4 {

ReadWriteDirectoryCache& ReadWriteDirectoryCache::instance() {
  static ReadWriteDirectoryCache cache;
  return cache;
}

std::shared_ptr<Directory> ReadWriteDirectoryCache::findCachedDirectory(
    const DirectoryKey& key) const {
  const std::lock_guard lock(m_lock);
  const auto at = m_directories.find(key);
  return at == m_directories.end() ? nullptr : at->second;
}

void ReadWriteDirectoryCache::addDirectoryToCache(const DirectoryKey& key,
                                                  const std::shared_ptr<Directory>& directory) {
  if (!directory) return;
  std::shared_ptr<Directory> replaced = directory;  // released after the lock
  const std::lock_guard lock(m_lock);
  m_directories[key].swap(replaced);
}

void ReadWriteDirectoryCache::release(std::uint32_t fileSystemId) {
  std::vector<std::shared_ptr<Directory>> released;  // after the lock
  const std::lock_guard lock(m_lock);
  for (auto at = m_directories.begin(); at != m_directories.end();) {
    if (at->first.fileSystemId != fileSystemId) {
      ++at;
      continue;
    }
    released.push_back(std::move(at->second));
    at = m_directories.erase(at);
  }
}

}  // namespace nfslib::nfs4
