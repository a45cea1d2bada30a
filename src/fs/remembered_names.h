#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nfslib {

// Names in the order in which they were added, in little more memory than their bytes. The oldest
// half is forgotten when they take more than a limit.
class RememberedNames {
 public:
  void add(std::string_view name, std::size_t mostBytes);
  // How many were added.
  std::uint64_t size() const { return m_size; }
  // Whether the name with that ordinal, from 0, is still known.
  bool has(std::uint64_t ordinal) const { return ordinal < m_size && ordinal >= m_first; }
  // Of one that is. Good until the next change.
  std::string_view at(std::uint64_t ordinal) const;
  // What they take in memory.
  std::size_t bytes() const { return m_bytes; }

 private:
  // Names of one block stand one behind the other, each behind its length; few enough to step over,
  // and enough of them that what a block takes for itself does not count.
  static constexpr std::uint64_t kBlockNames = 32;
  using Length = std::uint16_t;

  void forgetOldestHalf();

  std::vector<std::string> m_blocks;
  std::uint64_t m_first = 0;  // ordinal of the first name of the first block
  std::uint64_t m_size = 0;
  std::size_t m_bytes = 0;
};

}  // namespace nfslib
