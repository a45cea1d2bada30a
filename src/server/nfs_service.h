#pragma once

#include <nfslib/nfs_path.h>

#include "common/nfs_handle.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace nfslib {

class FileSystem;
class NfsFileSystem;
struct NfsMountSpec;

// What every program needs to know of the server, whatever the protocol: the exports, their
// numbers, and how a file handle leads back to one of them.
//
// Thread-safe. The export lock guards the tables; the drain lock, never held together with it, only
// carries the news that a view is gone.
class NfsService {
 public:
  using NumberedView = std::pair<std::uint32_t, std::shared_ptr<NfsFileSystem>>;

  NfsService();
  ~NfsService();
  NfsService(const NfsService&) = delete;
  NfsService& operator=(const NfsService&) = delete;

  // Adds an export and returns whether it is the only one. A path that is taken throws
  // std::runtime_error and changes nothing.
  bool exportFileSystem(const NfsPath& path, FileSystem& fs, const NfsMountSpec& spec);
  // Withdraws an export and returns whether none is left. A path that is not exported throws
  // std::runtime_error. Requests in flight may still use the view: see waitForViews.
  bool removeExport(const NfsPath& path);
  // Withdraws all exports.
  void clearExports();
  // Waits until the requests that use withdrawn views are done; false when they were not in time.
  bool waitForViews(std::chrono::steady_clock::duration limit);

  // In no particular order.
  std::vector<NfsPath> getExportPaths() const;
  // The export at `path` or named by `handle`; std::runtime_error when there is none. The handle's
  // generation is the caller's to check.
  NumberedView getFileSystem(const NfsPath& path) const;
  NumberedView getFileSystem(const NfsHandle& handle) const;
  // The handle of the root directory of the export at `path`.
  NfsHandle getHandle(const NfsPath& path);
  // Whether another start of the server issued the handle.
  bool isStaleHandle(const NfsHandle& handle) const;
  // The second this service was started in; part of every handle that it issues.
  std::uint32_t getGeneration() const { return m_generation; }

 private:
  // Counts the views that are alive. Views hold it, so that one that outlives the service is safe.
  struct LiveViews {
    std::mutex lock;
    std::condition_variable changed;
    std::size_t count = 0;
  };

  mutable std::shared_mutex m_exportLock;  // guards the three fields below
  std::uint32_t m_nextNumber = 1;          // never reused
  std::unordered_map<NfsPath, std::uint32_t> m_numbers;
  std::unordered_map<std::uint32_t, std::shared_ptr<NfsFileSystem>> m_views;

  const std::uint32_t m_generation;
  const std::shared_ptr<LiveViews> m_liveViews;
};

}  // namespace nfslib
