#include "archive/block_cache.h"

#include <nfslib/exception.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

namespace nfslib::hosts::archive {

namespace {

// How many decoders are at work in this thread, one reading from the other.
thread_local int workingHere = 0;

}  // namespace

BlockCache::Working::Working() { ++workingHere; }

BlockCache::Working::~Working() { --workingHere; }

BlockCache::Reservation::~Reservation() {
  if (m_cache != nullptr) m_cache->release(m_bytes, m_use);
}

void BlockCache::Reservation::swap(Reservation& other) noexcept {
  std::swap(m_cache, other.m_cache);
  std::swap(m_bytes, other.m_bytes);
  std::swap(m_use, other.m_use);
}

BlockCache::Reservation BlockCache::Reservation::split(std::size_t bytes) {
  bytes = std::min(bytes, m_bytes);
  if (bytes == 0) return {};
  m_bytes -= bytes;
  return Reservation(*m_cache, bytes, m_use);
}

BlockCache::BlockCache(std::size_t limitBytes) : m_limit(limitBytes) {}

BlockCache::~BlockCache() {
  // Their reservations come back here, and not into a map that is being destroyed.
  const Items leaving = std::exchange(m_items, {});
}

BlockCache::Statistics BlockCache::statistics() const {
  const std::lock_guard lock(m_lock);
  return {.hits = m_hits,
          .misses = m_misses,
          .bytesDecoded = m_bytesDecoded,
          .bytesHeld = m_held,
          .mostBytesHeld = m_mostHeld};
}

std::size_t BlockCache::forRestart() const { return m_limit / 8; }

std::size_t BlockCache::largestDecoder() const {
  const std::size_t room = m_limit - forRestart();
  return room - std::min(room, kBlockRoom);
}

BlockCache::Reservation BlockCache::taken(std::size_t bytes, Reservation::Use use) {
  m_held += bytes;
  m_mostHeld = std::max(m_mostHeld, m_held);
  if (use == Reservation::Use::Restart) m_heldForRestart += bytes;
  return Reservation(*this, bytes, use);
}

void BlockCache::release(std::size_t bytes, Reservation::Use use) noexcept {
  {
    const std::lock_guard lock(m_lock);
    m_held -= bytes;
    if (use == Reservation::Use::Restart) m_heldForRestart -= bytes;
  }
  m_released.notify_all();
}

bool BlockCache::makeRoom(std::size_t bytes, std::unique_lock<std::mutex>& lock) {
  if (bytes > m_limit) return false;
  while (m_held > m_limit - bytes) {
    std::vector<Item> leaving;
    // A block that somebody still copies from gives nothing back yet: then the next one leaves too.
    for (std::size_t freed = 0; !m_order.empty() && m_held - freed > m_limit - bytes;) {
      leaving.push_back(removed(m_items.find(m_order.back())));
      const Item& item = leaving.back();
      freed += item.block ? item.block->room.bytes() : item.parked.room.bytes();
    }
    if (leaving.empty()) return false;
    lock.unlock();
    leaving.clear();
    lock.lock();
  }
  return true;
}

BlockCache::Reservation BlockCache::reserve(std::size_t bytes) {
  if (bytes > m_limit - forRestart()) {
    throw SystemNfsException(ENOMEM, "Decompressing takes " + std::to_string(bytes) +
                                         " bytes of memory, and an archive may use " +
                                         std::to_string(m_limit) + ". Allow it more, at least " +
                                         std::to_string(bytes + bytes / 4) + ".");
  }
  std::unique_lock lock(m_lock);
  while (!makeRoom(bytes, lock)) {
    if (workingHere > 0) {
      throw SystemNfsException(ENOMEM, "All " + std::to_string(m_limit) +
                                           " bytes of memory that an archive may use are busy. "
                                           "Try again, or allow it more.");
    }
    m_released.wait(lock);
  }
  return taken(bytes, Reservation::Use::Working);
}

BlockCache::Reservation BlockCache::reserveNow(std::size_t bytes) {
  std::unique_lock lock(m_lock);
  if (!makeRoom(bytes, lock)) return {};
  return taken(bytes, Reservation::Use::Working);
}

BlockCache::Reservation BlockCache::reserveUnused(std::size_t bytes) {
  const std::lock_guard lock(m_lock);
  if (bytes > m_limit || m_held > m_limit - bytes) return {};
  return taken(bytes, Reservation::Use::Working);
}

BlockCache::Reservation BlockCache::reserveForRestart(std::size_t bytes) {
  std::unique_lock lock(m_lock);
  if (bytes > forRestart() || !makeRoom(bytes, lock)) return {};
  if (m_heldForRestart > forRestart() - bytes) return {};
  return taken(bytes, Reservation::Use::Restart);
}

std::uint64_t BlockCache::newSource() { return ++m_lastSource; }

void BlockCache::forget(std::uint64_t source) {
  std::vector<Item> leaving;
  const std::lock_guard lock(m_lock);
  const auto first = m_items.lower_bound({source, Kind::Block, 0});
  const auto last = m_items.lower_bound({source + 1, Kind::Block, 0});
  for (auto at = first; at != last;) leaving.push_back(removed(at++));
}

std::shared_ptr<BlockCache::Block> BlockCache::find(std::uint64_t source, std::uint64_t index) {
  const std::lock_guard lock(m_lock);
  const auto at = m_items.find({source, Kind::Block, index});
  if (at == m_items.end()) return nullptr;
  m_order.splice(m_order.begin(), m_order, at->second.place);
  return at->second.block;
}

void BlockCache::keep(std::uint64_t source, std::uint64_t index, std::shared_ptr<Block> block) {
  put({source, Kind::Block, index}, {.block = std::move(block), .parked = {}});
}

void BlockCache::wasRead(std::uint64_t source, std::uint64_t index) {
  const std::lock_guard lock(m_lock);
  const auto at = m_items.find({source, Kind::Block, index});
  if (at != m_items.end()) m_order.splice(m_order.end(), m_order, at->second.place);
}

std::optional<std::uint64_t> BlockCache::nearest(std::uint64_t source, std::uint64_t offset) const {
  const std::lock_guard lock(m_lock);
  const auto after = m_items.upper_bound({source, Kind::Decoder, offset});
  if (after == m_items.begin()) return std::nullopt;
  const auto& [at, kind, position] = std::prev(after)->first;
  if (at != source || kind != Kind::Decoder) return std::nullopt;
  return position;
}

BlockCache::Parked BlockCache::take(std::uint64_t source, std::uint64_t offset) {
  const std::lock_guard lock(m_lock);
  const auto at = m_items.find({source, Kind::Decoder, offset});
  return at == m_items.end() ? Parked{} : std::move(removed(at).parked);
}

void BlockCache::park(std::uint64_t source, Parked parked) {
  const Key key{source, Kind::Decoder, parked.offset};
  put(key, {.block = nullptr, .parked = std::move(parked)});
}

void BlockCache::put(const Key& key, Item item) {
  // The one that was there serves as well; `item` then goes at the end of this call.
  {
    const std::lock_guard lock(m_lock);
    const auto [at, isNew] = m_items.try_emplace(key);
    if (isNew) {
      m_order.push_front(key);
      item.place = m_order.begin();
      at->second = std::move(item);
    }
  }
  m_released.notify_all();  // it can be let go of
}

BlockCache::Item BlockCache::removed(Items::iterator at) {
  Item item = std::move(at->second);
  m_order.erase(item.place);
  m_items.erase(at);
  return item;
}

}  // namespace nfslib::hosts::archive
