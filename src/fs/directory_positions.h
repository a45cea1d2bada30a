#pragma once

#include <nfslib/directory_iterator.h>
#include <nfslib/file_system.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>

namespace nfslib {

// Which entries have cookies: all that the host lists, or those but for "." and "..".
enum class CookieOrder { AllEntries, WithoutSelfAndParent };

// Where listings of one export stopped, so that the next call of a listing goes on there instead of
// walking the directory from its start, which would make long listings quadratic.
//
// A pass can be moved by one listing only, so a position is taken out by whoever goes on from it
// and stored anew when that call ends. Several listings, of one directory or of many, keep
// positions side by side; the oldest makes room. Thread-safe; passes are released outside the lock.
class DirectoryPositions {
 public:
  explicit DirectoryPositions(std::size_t capacity) : m_capacity(capacity) {}

  struct Position {
    std::shared_ptr<Directory> dir;  // the host's own object
    bool isRoot = false;             // the root is the same directory whatever object stands for it
    std::uint32_t modifyTime = 0;    // of the directory when the position was stored
    std::uint64_t cookie = 0;        // of the entry just before the position
    DirectoryIterator it;
    CookieOrder order = CookieOrder::AllEntries;
  };

  // The position of the same directory, unchanged since, that is nearest to `cookie` without being
  // behind it.
  std::optional<Position> take(const std::shared_ptr<Directory>& dir, bool isRoot,
                               std::uint32_t modifyTime, std::uint64_t cookie,
                               CookieOrder order = CookieOrder::AllEntries);
  void store(Position position);

 private:
  std::mutex m_lock;                // guards m_positions; nothing else is locked under it
  std::list<Position> m_positions;  // newest first
  std::size_t m_capacity;
};

}  // namespace nfslib
