#include "archive/restart_points.h"

#include <iterator>
#include <utility>

namespace nfslib::hosts::archive {

namespace {

// Reading backwards decodes this much at most, which takes less time than a disk to turn.
constexpr std::uint64_t kFirstInterval = std::uint64_t{4} << 20;
// Of a point beside what its decoder holds.
constexpr std::size_t kPointBytes = 256;
static_assert(kFirstInterval % BlockCache::kBlockBytes == 0, "points stand where blocks begin");

}  // namespace

RestartPoints::RestartPoints(std::shared_ptr<BlockCache> cache, MakeDecoder fromStart)
    : m_cache(std::move(cache)), m_interval(kFirstInterval) {
  m_points.emplace(0, Kept{std::move(fromStart), {}});
}

RestartPoints::Point RestartPoints::nearest(std::uint64_t offset) const {
  const std::lock_guard lock(m_lock);
  const auto& [at, kept] = *std::prev(m_points.upper_bound(offset));
  return {at, kept.make};
}

bool RestartPoints::wanted(std::uint64_t offset) const {
  const auto after = m_points.upper_bound(offset);
  // Counted from multiples of the interval, so that every pass asks at the same places.
  return std::prev(after)->first / m_interval < offset / m_interval &&
         (after == m_points.end() || after->first / m_interval > offset / m_interval);
}

std::uint64_t RestartPoints::untilNext(std::uint64_t offset) const {
  const std::lock_guard lock(m_lock);
  return m_interval - offset % m_interval;
}

void RestartPoints::offer(std::uint64_t offset, Decoder& decoder) {
  {
    const std::lock_guard lock(m_lock);
    if (!wanted(offset)) return;
  }
  Decoder::Restart restart = decoder.restart();
  if (!restart.make) return;
  BlockCache::Reservation room = m_cache->reserveForRestart(restart.bytes + kPointBytes);
  std::map<std::uint64_t, Kept> dropped;  // destroyed without the lock
  const std::lock_guard lock(m_lock);
  if (room.bytes() == 0) {
    dropped = thinOut();
  } else if (wanted(offset)) {
    m_points.emplace(offset, Kept{std::move(restart.make), std::move(room)});
  }
}

std::map<std::uint64_t, RestartPoints::Kept> RestartPoints::thinOut() {
  std::map<std::uint64_t, Kept> dropped;
  if (m_points.size() == 1) return dropped;  // others have it all
  m_interval *= 2;
  for (auto at = std::next(m_points.begin()); at != m_points.end();) {
    const auto next = std::next(at);
    if (std::prev(at)->first / m_interval == at->first / m_interval) {
      dropped.insert(m_points.extract(at));
    }
    at = next;
  }
  return dropped;
}

}  // namespace nfslib::hosts::archive
