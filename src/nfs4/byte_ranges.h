#pragma once

#include "common/xdr_records.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>

namespace nfslib::nfs4 {

// Bytes of a file, the last one included; UINT64_MAX is its end, wherever that is.
struct ByteRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  bool operator==(const ByteRange&) const = default;
};

// Who holds a lock. Only the address is compared: an owner has one for all that it holds.
using LockHolder = const StateOwner*;

// Ranges by where they start, each with its holder: a search tree (a treap) in which every node
// knows how far the ranges below it reach, by the holder that gets furthest and by the one that
// gets furthest of all others. So "does anything that is not mine overlap this" is answered in the
// time that it takes to walk down the tree, however many ranges overlap and whoever holds them.
class RangeIndex {
 public:
  struct Entry {
    ByteRange range;
    LockHolder holder = nullptr;
  };

  // A holder's ranges start at different bytes.
  void insert(const Entry& entry);
  void erase(const Entry& entry);
  // The first range that overlaps and is not held by `except`, nullptr when there is none.
  const Entry* findOverlap(const ByteRange& range, LockHolder except) const;

 private:
  struct Reach {
    std::uint64_t last = 0;
    LockHolder holder = nullptr;  // nullptr: there is nothing
  };
  struct Node;
  using Link = std::unique_ptr<Node>;
  struct Node {
    Entry entry;
    std::uint_fast32_t priority = 0;
    Reach furthest;
    Reach next;  // of another holder
    Link below, above;

    void reach(const Reach& other);
    void update();
    bool reaches(std::uint64_t byte, LockHolder except) const;
  };

  static bool isBefore(const Entry& one, const Entry& other);
  static Link joined(Link below, Link above);
  static void split(Link tree, const Entry& at, Link& below, Link& above);
  static void erase(Link& tree, const Entry& entry);
  static std::uint_fast32_t seed();

  Link m_root;
  // Nobody outside can tell in which order keys would make the tree a list.
  std::minstd_rand m_random{seed()};
};

// The byte-range locks of one file, as fcntl(2) has them: what a holder sets takes the place of
// what it held there, neighbours of one kind are joined, and giving up the middle leaves two. Every
// operation takes time that grows with the logarithm of the number of locks, and with the number of
// the holder's own locks that it replaces.
//
// Not thread-safe.
class ByteRanges {
 public:
  struct Lock {
    ByteRange range;
    bool isWrite = false;
    LockHolder holder = nullptr;
  };

  // A lock of another holder that does not go with `wanted`.
  std::optional<Lock> findConflict(const Lock& wanted) const;
  // The lock is one that nobody objects to.
  void set(const Lock& lock);
  void clear(LockHolder holder, const ByteRange& range);
  // Whether clearing the range would leave a piece on either side of it, made of one.
  bool splits(LockHolder holder, const ByteRange& range) const;
  // How many pieces there are; a lock that is set makes at most two more.
  std::size_t count(LockHolder holder) const;

 private:
  struct Piece {
    std::uint64_t last = 0;
    bool isWrite = false;
  };
  using Pieces = std::map<std::uint64_t, Piece>;  // by the first byte; they do not overlap

  RangeIndex& indexOf(bool isWrite) { return isWrite ? m_writes : m_reads; }
  void add(Pieces& pieces, const Lock& lock);
  Pieces::iterator remove(Pieces& pieces, Pieces::iterator piece, LockHolder holder);
  void cut(Pieces& pieces, LockHolder holder, const ByteRange& range);

  std::map<LockHolder, Pieces> m_pieces;
  RangeIndex m_reads, m_writes;
};

}  // namespace nfslib::nfs4
