#include "fs/directory_positions.h"

#include <algorithm>
#include <utility>

namespace nfslib {

std::optional<DirectoryPositions::Position> DirectoryPositions::take(
    const std::shared_ptr<Directory>& dir, bool isRoot, std::uint32_t modifyTime,
    std::uint64_t cookie, CookieOrder order) {
  const std::lock_guard lock(m_lock);
  auto best = m_positions.end();
  for (auto at = m_positions.begin(); at != m_positions.end(); ++at) {
    const bool same = at->dir == dir || (isRoot && at->isRoot);
    if (!same || at->order != order) continue;
    if (at->modifyTime != modifyTime || at->cookie > cookie) continue;
    if (best == m_positions.end() || at->cookie > best->cookie) best = at;
  }
  if (best == m_positions.end()) return std::nullopt;
  std::optional<Position> taken(std::move(*best));
  m_positions.erase(best);
  return taken;
}

void DirectoryPositions::store(Position position) {
  std::list<Position> fresh;
  fresh.push_back(std::move(position));
  std::list<Position> dropped;  // destroyed after the lock: closing a pass is a call of the host
  const std::lock_guard lock(m_lock);
  m_positions.splice(m_positions.begin(), fresh);
  if (m_positions.size() <= m_capacity) return;
  // A finished listing is seldom asked for again: it goes before one that a client is in the midst
  // of.
  const auto finished =
      std::find_if(m_positions.rbegin(), m_positions.rend(),
                   [](const Position& stored) { return stored.it == DirectoryIterator(); });
  const auto victim =
      finished == m_positions.rend() ? std::prev(m_positions.end()) : std::prev(finished.base());
  dropped.splice(dropped.begin(), m_positions, victim);
}

}  // namespace nfslib
