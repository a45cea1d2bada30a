#include "posix/object_ids.h"

#include <algorithm>
#include <utility>

namespace nfslib::hosts::posix {

std::size_t ObjectIds::hash(const Key& key) {
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
  shard.makeRoom();
  Known& known = shard.slots[shard.find(key)];
  const bool isNew = known.id == 0;
  if (isNew) ++shard.used;
  if (isNew || known.birth != birth) {
    known = {key, m_next.fetch_add(1, std::memory_order_relaxed), birth};
  }
  return known.id;
}

void ObjectIds::forget(const struct statx& status) {
  const Key key = keyOf(status);
  Shard& shard = shardOf(key);
  const std::lock_guard lock(shard.lock);
  if (shard.used == 0) return;
  const std::size_t slot = shard.find(key);
  if (shard.slots[slot].id != 0) shard.free(slot);
}

std::size_t ObjectIds::Shard::home(const Key& key) const {
  return hash(key) / kShards & (slots.size() - 1);
}

std::size_t ObjectIds::Shard::find(const Key& key) const {
  std::size_t slot = home(key);
  while (slots[slot].id != 0 && slots[slot].key != key) slot = next(slot);
  return slot;
}

void ObjectIds::Shard::makeRoom() {
  if (used < slots.size() / 4 * 3) return;
  const std::vector<Known> before =
      std::exchange(slots, std::vector<Known>(std::max<std::size_t>(2 * slots.size(), 16)));
  for (const Known& known : before) {
    if (known.id != 0) slots[find(known.key)] = known;
  }
}

void ObjectIds::Shard::free(std::size_t slot) {
  --used;
  slots[slot].id = 0;
  // Those behind it, up to the next free slot, move up unless that were before their home.
  for (std::size_t at = next(slot); slots[at].id != 0; at = next(at)) {
    const std::size_t mask = slots.size() - 1;
    if (((at - home(slots[at].key)) & mask) < ((at - slot) & mask)) continue;
    slots[slot] = slots[at];
    slots[at].id = 0;
    slot = at;
  }
}

}  // namespace nfslib::hosts::posix
