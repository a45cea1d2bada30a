#include "nfs4/byte_ranges.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <utility>

namespace nfslib::nfs4 {

// ---- RangeIndex

std::uint_fast32_t RangeIndex::seed() {
  static const std::uint_fast32_t drawn = std::random_device()();
  return drawn;
}

bool RangeIndex::isBefore(const Entry& one, const Entry& other) {
  if (one.range.first != other.range.first) return one.range.first < other.range.first;
  return std::less<>()(one.holder, other.holder);
}

void RangeIndex::Node::reach(const Reach& other) {
  if (other.holder == nullptr) return;
  if (other.holder == furthest.holder) {
    furthest.last = std::max(furthest.last, other.last);
  } else if (furthest.holder == nullptr || other.last > furthest.last) {
    next = std::exchange(furthest, other);
  } else if (next.holder == nullptr || other.last > next.last) {
    next = other;
  }
}

void RangeIndex::Node::update() {
  furthest = {entry.range.last, entry.holder};
  next = {};
  for (const Link* child : {&below, &above}) {
    if (!*child) continue;
    reach((*child)->furthest);
    reach((*child)->next);
  }
}

bool RangeIndex::Node::reaches(std::uint64_t byte, LockHolder except) const {
  const Reach& reach = furthest.holder != except ? furthest : next;
  return reach.holder != nullptr && reach.last >= byte;
}

RangeIndex::Link RangeIndex::joined(Link below, Link above) {
  if (!below) return above;
  if (!above) return below;
  if (below->priority > above->priority) {
    below->above = joined(std::move(below->above), std::move(above));
    below->update();
    return below;
  }
  above->below = joined(std::move(below), std::move(above->below));
  above->update();
  return above;
}

void RangeIndex::split(Link tree, const Entry& at, Link& below, Link& above) {
  if (!tree) {
    below.reset();
    above.reset();
  } else if (isBefore(tree->entry, at)) {
    Link rest = std::move(tree->above);
    split(std::move(rest), at, tree->above, above);
    tree->update();
    below = std::move(tree);
  } else {
    Link rest = std::move(tree->below);
    split(std::move(rest), at, below, tree->below);
    tree->update();
    above = std::move(tree);
  }
}

void RangeIndex::insert(const Entry& entry) {
  auto node = std::make_unique<Node>();
  node->entry = entry;
  node->priority = m_random();
  node->update();
  Link below, above;
  split(std::move(m_root), entry, below, above);
  m_root = joined(joined(std::move(below), std::move(node)), std::move(above));
}

void RangeIndex::erase(Link& tree, const Entry& entry) {
  if (!tree) return;
  if (isBefore(entry, tree->entry)) {
    erase(tree->below, entry);
  } else if (isBefore(tree->entry, entry)) {
    erase(tree->above, entry);
  } else {
    tree = joined(std::move(tree->below), std::move(tree->above));
    return;
  }
  tree->update();
}

void RangeIndex::erase(const Entry& entry) { erase(m_root, entry); }

const RangeIndex::Entry* RangeIndex::findOverlap(const ByteRange& range, LockHolder except) const {
  const Node* node = m_root.get();
  while (node != nullptr && node->reaches(range.first, except)) {
    if (node->below && node->below->reaches(range.first, except)) {
      // What reaches that far there overlaps, or starts behind the range, and then so does all that
      // comes after it.
      node = node->below.get();
      continue;
    }
    const Entry& entry = node->entry;
    if (entry.range.first > range.last) return nullptr;
    if (entry.holder != except && entry.range.last >= range.first) return &entry;
    node = node->above.get();
  }
  return nullptr;
}

// ---- ByteRanges

std::optional<ByteRanges::Lock> ByteRanges::findConflict(const Lock& wanted) const {
  for (const bool isWrite : {true, false}) {
    if (!isWrite && !wanted.isWrite) break;  // readers go together
    const RangeIndex& index = isWrite ? m_writes : m_reads;
    if (const auto* held = index.findOverlap(wanted.range, wanted.holder)) {
      return Lock{held->range, isWrite, held->holder};
    }
  }
  return std::nullopt;
}

void ByteRanges::add(Pieces& pieces, const Lock& lock) {
  pieces.emplace(lock.range.first, Piece{lock.range.last, lock.isWrite});
  indexOf(lock.isWrite).insert({lock.range, lock.holder});
}

ByteRanges::Pieces::iterator ByteRanges::remove(Pieces& pieces, Pieces::iterator piece,
                                                LockHolder holder) {
  indexOf(piece->second.isWrite).erase({{piece->first, piece->second.last}, holder});
  return pieces.erase(piece);
}

void ByteRanges::cut(Pieces& pieces, LockHolder holder, const ByteRange& range) {
  auto piece = pieces.upper_bound(range.first);
  if (piece != pieces.begin() && std::prev(piece)->second.last >= range.first) --piece;
  while (piece != pieces.end() && piece->first <= range.last) {
    const Lock whole{{piece->first, piece->second.last}, piece->second.isWrite, holder};
    piece = remove(pieces, piece, holder);
    if (whole.range.first < range.first) {
      add(pieces, {{whole.range.first, range.first - 1}, whole.isWrite, holder});
    }
    if (whole.range.last > range.last) {
      add(pieces, {{range.last + 1, whole.range.last}, whole.isWrite, holder});
      break;  // nothing of its own starts before that
    }
  }
}

void ByteRanges::set(const Lock& lock) {
  Pieces& pieces = m_pieces[lock.holder];
  cut(pieces, lock.holder, lock.range);
  Lock whole = lock;
  auto neighbour = pieces.lower_bound(lock.range.first);
  if (neighbour != pieces.end() && neighbour->second.isWrite == lock.isWrite &&
      neighbour->first - 1 == lock.range.last) {
    whole.range.last = neighbour->second.last;
    neighbour = remove(pieces, neighbour, lock.holder);
  }
  if (neighbour != pieces.begin()) {
    --neighbour;
    if (neighbour->second.isWrite == lock.isWrite &&
        neighbour->second.last + 1 == lock.range.first) {
      whole.range.first = neighbour->first;
      remove(pieces, neighbour, lock.holder);
    }
  }
  add(pieces, whole);
}

void ByteRanges::clear(LockHolder holder, const ByteRange& range) {
  const auto held = m_pieces.find(holder);
  if (held == m_pieces.end()) return;
  cut(held->second, holder, range);
  if (held->second.empty()) m_pieces.erase(held);
}

bool ByteRanges::splits(LockHolder holder, const ByteRange& range) const {
  const auto held = m_pieces.find(holder);
  if (held == m_pieces.end()) return false;
  const auto piece = held->second.lower_bound(range.first);
  return piece != held->second.begin() && std::prev(piece)->second.last > range.last;
}

std::size_t ByteRanges::count(LockHolder holder) const {
  const auto held = m_pieces.find(holder);
  return held == m_pieces.end() ? 0 : held->second.size();
}

}  // namespace nfslib::nfs4
