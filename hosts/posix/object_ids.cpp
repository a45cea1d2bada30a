#include "posix/object_ids.h"

namespace nfslib::hosts::posix {

std::size_t ObjectIds::Hash::operator()(const Key& key) const noexcept {
  // Inode numbers are dense: the factor spreads them, and the high half has the well-mixed bits.
  const std::uint64_t mixed = (key.inode ^ (key.device << 40)) * 0x9E3779B97F4A7C15U;
  return static_cast<std::size_t>(mixed >> 20);
}

ObjectIds::Key ObjectIds::keyOf(const struct statx& status) {
  const std::uint64_t major = status.stx_dev_major;
  return {major << 32 | status.stx_dev_minor, status.stx_ino};
}

std::uint64_t ObjectIds::of(const struct statx& status) {
  std::int64_t birth = 0;
  if (m_trustBirthTimes && (status.stx_mask & STATX_BTIME) != 0) {
    birth = status.stx_btime.tv_sec * 1'000'000'000 + status.stx_btime.tv_nsec;
  }
  const Key key = keyOf(status);
  Shard& shard = shardOf(key);
  const std::lock_guard lock(shard.lock);
  const auto [at, isNew] = shard.objects.try_emplace(key);
  Known& known = at->second;
  if (isNew || known.birth != birth) {
    known = {m_next.fetch_add(1, std::memory_order_relaxed), birth};
  }
  return known.id;
}

void ObjectIds::forget(const struct statx& status) {
  const Key key = keyOf(status);
  Shard& shard = shardOf(key);
  const std::lock_guard lock(shard.lock);
  shard.objects.erase(key);
}

}  // namespace nfslib::hosts::posix
