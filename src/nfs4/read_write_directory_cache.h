#pragma once

#include <nfslib/file_system.h>

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace nfslib::nfs4 {

struct DirectoryKey {
  std::uint32_t fileSystemId = 0;
  std::string path;
  auto operator<=>(const DirectoryKey&) const = default;
};

// The parent directories of files whose writes ran out of space, kept open for the listings that
// follow. Who takes one out has to see whether it is still the directory of that path.
//
// Thread-safe. The lock is innermost.
class ReadWriteDirectoryCache {
 public:
  static ReadWriteDirectoryCache& instance();

  // Empty when there is none.
  std::shared_ptr<Directory> findCachedDirectory(const DirectoryKey& key) const;
  // Replaces what was there; an empty pointer changes nothing.
  void addDirectoryToCache(const DirectoryKey& key, const std::shared_ptr<Directory>& directory);
  // Lets go of the directories of an export.
  void release(std::uint32_t fileSystemId);

 private:
  mutable std::mutex m_lock;  // guards m_directories
  std::map<DirectoryKey, std::shared_ptr<Directory>> m_directories;
};

}  // namespace nfslib::nfs4
