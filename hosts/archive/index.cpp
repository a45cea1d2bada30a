#include "archive/index.h"

#include <algorithm>
#include <utility>

namespace nfslib::hosts::archive {

Index::Index(IndexParts parts) : m_parts(std::move(parts)) {
  for (const Node& node : m_parts.nodes) {
    if (node.names == 0) continue;  // another has taken its place
    ++m_objects;
    if (node.is(FileType::Regular)) m_bytes += node.size;
  }
}

MetaData Index::metaData(NodeId id) const {
  const Node& found = node(id);
  return {.type = found.type,
          .fileId = std::uint64_t{id} + 1,
          .size = found.size,
          .linkCount = found.names,
          .uid = found.uid,
          .gid = found.gid,
          .accessTime = found.accessTime,
          .changeTime = found.changeTime,
          .modifyTime = found.modifyTime,
          .mode = found.mode};
}

std::span<const Entry> Index::children(const Node& directory) const {
  return std::span(m_parts.entries).subspan(directory.where, directory.count);
}

const Entry* Index::find(const Node& directory, std::string_view wanted) const {
  const auto entries = children(directory);
  const auto found =
      std::lower_bound(entries.begin(), entries.end(), wanted,
                       [this](const Entry& entry, std::string_view n) { return name(entry) < n; });
  return found != entries.end() && name(*found) == wanted ? &*found : nullptr;
}

std::span<const Extent> Index::extents(const Node& file) const {
  return std::span(m_parts.extents).subspan(file.where, file.count);
}

std::string_view Index::text(const Node& link) const {
  return std::string_view(m_parts.texts).substr(link.where, link.count);
}

std::size_t Index::memory() const {
  return m_parts.nodes.capacity() * sizeof(Node) + m_parts.entries.capacity() * sizeof(Entry) +
         m_parts.extents.capacity() * sizeof(Extent) + m_parts.names.capacity() +
         m_parts.texts.capacity();
}

}  // namespace nfslib::hosts::archive
