#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

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
  struct Known {
    Key key;
    std::uint64_t id;    // 0: the slot is free
    std::int64_t birth;  // nanoseconds
  };
  // A hash table without pointers, of a power of two slots of which some are free, so that a
  // look-up in a large one waits for memory once: an object is in the first slot that was free from
  // its home on, round the end.
  struct Shard {
    std::mutex lock;  // innermost
    std::vector<Known> slots;
    std::size_t used = 0;

    std::size_t home(const Key& key) const;
    std::size_t next(std::size_t slot) const { return (slot + 1) & (slots.size() - 1); }
    // The slot that has `key`, or the free one where it belongs.
    std::size_t find(const Key& key) const;
    void makeRoom();
    void free(std::size_t slot);
  };

  static Key keyOf(const struct statx& status);
  static std::size_t hash(const Key& key);
  Shard& shardOf(const Key& key) { return m_shards[hash(key) % kShards]; }

  static constexpr std::size_t kShards = 16;
  const bool m_trustBirthTimes;
  std::array<Shard, kShards> m_shards;
  std::atomic<std::uint64_t> m_next{1};
};

}  // namespace nfslib::hosts::posix
