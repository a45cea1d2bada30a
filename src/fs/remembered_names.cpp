#include "fs/remembered_names.h"

#include <cstring>
#include <limits>

namespace nfslib {

namespace {

std::size_t sizeOf(const std::string& block) { return sizeof block + block.capacity(); }

}  // namespace

void RememberedNames::add(std::string_view name, std::size_t mostBytes) {
  // No client can ask for a longer name; an empty one is found nowhere, which leaves the entry out.
  if (name.size() > std::numeric_limits<Length>::max()) name = {};
  if (m_size % kBlockNames == 0) {
    // A full block does not grow any more.
    if (!m_blocks.empty()) {
      m_bytes -= sizeOf(m_blocks.back());
      m_blocks.back().shrink_to_fit();
      m_bytes += sizeOf(m_blocks.back());
    }
    if (m_bytes > mostBytes) forgetOldestHalf();
    m_blocks.emplace_back();
    m_bytes += sizeOf(m_blocks.back());
  }
  std::string& block = m_blocks.back();
  m_bytes -= sizeOf(block);
  const auto length = static_cast<Length>(name.size());
  block.append(reinterpret_cast<const char*>(&length), sizeof length).append(name);
  m_bytes += sizeOf(block);
  ++m_size;
}

std::string_view RememberedNames::at(std::uint64_t ordinal) const {
  const std::uint64_t place = ordinal - m_first;
  const std::string& block = m_blocks[place / kBlockNames];
  const char* at = block.data();
  for (std::uint64_t before = place % kBlockNames;; --before) {
    Length length = 0;
    std::memcpy(&length, at, sizeof length);
    at += sizeof length;
    if (before == 0) return {at, length};
    at += length;
  }
}

void RememberedNames::forgetOldestHalf() {
  const std::size_t half = m_blocks.size() / 2;
  for (std::size_t i = 0; i < half; ++i) m_bytes -= sizeOf(m_blocks[i]);
  m_blocks.erase(m_blocks.begin(), m_blocks.begin() + static_cast<std::ptrdiff_t>(half));
  m_first += half * kBlockNames;
}

}  // namespace nfslib
