#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace nfslib::hosts::memory {

class Node;

// The entries of one directory, found by name and listed in the order in which they came.
//
// Not thread-safe: the owner locks. A `Cursor` stays good whatever happens to the table between two
// of its steps.
class EntryTable {
 public:
  struct Entry {
    std::string name;
    std::shared_ptr<Node> node;
  };

  EntryTable() = default;
  EntryTable(const EntryTable&) = delete;
  EntryTable& operator=(const EntryTable&) = delete;

  bool empty() const { return m_sequence.empty(); }
  std::size_t size() const { return m_sequence.size(); }
  // The node called `name`, or an empty pointer.
  std::shared_ptr<Node> find(std::string_view name) const;

  // Adds `name`, which is not taken. Throws (bad_alloc) having added nothing.
  void add(const std::string& name, std::shared_ptr<Node> node);
  // Takes the entry `name` out, if there is one, and returns its node.
  std::shared_ptr<Node> remove(std::string_view name) noexcept;
  // After this the next `move` into this table needs no memory. Throws bad_alloc.
  void prepareMove() { m_names.reserve(m_names.size() + 1); }
  // Moves the entry `name`, which exists, from one table into another or the same one, as
  // `newName`, which is not taken. Within one table it keeps its place in the order, so that a
  // listing under way shows it once.
  static void move(EntryTable& from, std::string_view name, EntryTable& to,
                   std::string newName) noexcept;
  // Takes every entry out into `nodes`.
  template <class Container>
  void drainInto(Container& nodes) {
    for (auto& [number, entry] : m_sequence) nodes.push_back(std::move(entry.node));
    m_names.clear();
    m_sequence.clear();
    ++m_removals;
  }

  // A pass over the entries that there are when it begins.
  class Cursor {
   public:
    explicit Cursor(const EntryTable& table) : m_last(table.m_nextNumber) {}

    // Steps to the next entry, which is good until the table changes; nullptr past the last one.
    const Entry* next(const EntryTable& table);

   private:
    static constexpr std::uint64_t kNoPlace = UINT64_MAX;

    const std::uint64_t m_last;    // entries from this number on came later
    std::uint64_t m_position = 0;  // the number of the entry last shown
    std::map<std::uint64_t, Entry>::const_iterator m_at;
    std::uint64_t m_removals = kNoPlace;  // `m_at` is good while the table's count is this
  };

 private:
  using Sequence = std::map<std::uint64_t, Entry>;

  Sequence m_sequence;
  std::unordered_map<std::string_view, Sequence::iterator> m_names;  // keys: the entries' names
  std::uint64_t m_nextNumber = 1;
  std::uint64_t m_removals = 0;
};

}  // namespace nfslib::hosts::memory
