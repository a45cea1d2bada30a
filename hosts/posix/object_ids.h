#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include <sys/stat.h>

namespace nfslib::hosts::posix {

// The file ids of the objects that were seen: 1, 2, 3 and so on, so that they differ in their low
// 32 bits, which inode numbers do not, let alone those of several devices.
//
// A file system gives a freed inode number to the next object. An object removed through this host
// is forgotten, and one that was removed by others is told from its successor by its time of birth,
// where the system tells that and `trustBirthTimes` says that it does not change (it does where a
// file is copied on its first write). Any thread may call.
class ObjectIds {
 public:
  explicit ObjectIds(bool trustBirthTimes) : m_trustBirthTimes(trustBirthTimes) {}

  // The id of the object that `status` describes, which has device, inode number and time of birth.
  std::uint64_t of(const struct statx& status);
  // Whatever has this inode number from now on is another object.
  void forget(const struct statx& status);

 private:
  struct Key {
    std::uint64_t device;
    std::uint64_t inode;
    bool operator==(const Key&) const = default;
  };
  struct Hash {
    std::size_t operator()(const Key& key) const noexcept;
  };
  struct Known {
    std::uint64_t id;
    std::int64_t birth;  // nanoseconds
  };
  struct Shard {
    std::mutex lock;  // innermost
    std::unordered_map<Key, Known, Hash> objects;
  };

  static Key keyOf(const struct statx& status);
  Shard& shardOf(const Key& key) { return m_shards[Hash{}(key) % m_shards.size()]; }

  const bool m_trustBirthTimes;
  std::array<Shard, 16> m_shards;
  std::atomic<std::uint64_t> m_next{1};
};

}  // namespace nfslib::hosts::posix
