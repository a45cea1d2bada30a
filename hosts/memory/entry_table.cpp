#include "memory/entry_table.h"

#include <iterator>
#include <utility>

namespace nfslib::hosts::memory {

std::shared_ptr<Node> EntryTable::find(std::string_view name) const {
  const auto at = m_names.find(name);
  return at == m_names.end() ? nullptr : at->second->second.node;
}

void EntryTable::add(const std::string& name, std::shared_ptr<Node> node) {
  const auto at =
      m_sequence.emplace_hint(m_sequence.end(), m_nextNumber, Entry{name, std::move(node)});
  try {
    m_names.emplace(at->second.name, at);
  } catch (...) {
    m_sequence.erase(at);
    throw;
  }
  ++m_nextNumber;
}

std::shared_ptr<Node> EntryTable::remove(std::string_view name) noexcept {
  const auto found = m_names.find(name);
  if (found == m_names.end()) return nullptr;
  const auto at = found->second;
  m_names.erase(found);
  auto node = std::move(at->second.node);
  m_sequence.erase(at);
  ++m_removals;
  return node;
}

void EntryTable::move(EntryTable& from, std::string_view name, EntryTable& to,
                      std::string newName) noexcept {
  auto found = from.m_names.extract(name);
  if (&from != &to) {
    auto entry = from.m_sequence.extract(found.mapped());
    ++from.m_removals;
    entry.key() = to.m_nextNumber++;
    found.mapped() = to.m_sequence.insert(to.m_sequence.end(), std::move(entry));
  }
  Entry& entry = found.mapped()->second;
  entry.name = std::move(newName);
  found.key() = entry.name;
  to.m_names.insert(std::move(found));
}

const EntryTable::Entry* EntryTable::Cursor::next(const EntryTable& table) {
  if (m_removals == table.m_removals) {
    ++m_at;
  } else {
    m_at = table.m_sequence.upper_bound(m_position);
    m_removals = table.m_removals;
  }
  if (m_at == table.m_sequence.end() || m_at->first >= m_last) {
    m_removals = kNoPlace;  // there is nothing to step on from
    return nullptr;
  }
  m_position = m_at->first;
  return &m_at->second;
}

}  // namespace nfslib::hosts::memory
