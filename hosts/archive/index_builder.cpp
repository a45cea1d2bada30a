#include "archive/index_builder.h"

#include <nfslib/exception.h>

#include "entry_name.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <tuple>
#include <utility>

namespace nfslib::hosts::archive {

namespace {

constexpr std::size_t kDeepest = 1000;
// Ids have 32 bits; this is what the largest archives need, and some.
constexpr std::size_t kMostObjects = 500'000'000;

Node directoryOf(std::uint32_t time) {
  return {.accessTime = time,
          .changeTime = time,
          .modifyTime = time,
          .mode = 0755,
          .type = static_cast<std::uint8_t>(FileType::Directory),
          .content = Content::Children};
}

// The components of `path` that count.
std::vector<std::string_view> resolve(std::string_view path) {
  std::vector<std::string_view> components;
  while (!path.empty()) {
    const std::size_t end = path.find('/');
    const std::string_view component = path.substr(0, end);
    path.remove_prefix(end == path.npos ? path.size() : end + 1);
    if (component == "..") {
      if (!components.empty()) components.pop_back();
    } else if (!component.empty() && component != ".") {
      components.push_back(component);
    }
  }
  return components;
}

}  // namespace

std::size_t IndexBuilder::NameHash::operator()(const Name& name) const {
  return std::hash<std::string_view>()(name.name) ^ (name.parent * 0x9E3779B97F4A7C15ULL);
}

std::size_t IndexBuilder::NameHash::operator()(EntryNumber entry) const {
  return (*this)(nameOf(*parts, entry));
}

bool IndexBuilder::NameEqual::operator()(EntryNumber entry, const Name& name) const {
  const Name own = nameOf(*parts, entry);
  return own.parent == name.parent && own.name == name.name;
}

IndexBuilder::IndexBuilder(Problems& problems, std::uint32_t defaultTime)
    : m_problems(problems),
      m_madeUp(directoryOf(defaultTime)),
      m_byName(0, NameHash{&m_parts}, NameEqual{&m_parts}) {
  addNode(m_madeUp);
}

void IndexBuilder::add(std::string_view path, const Node& object) {
  const auto components = taken(path);
  if (!components) return;
  if (object.is(FileType::Directory)) return addDirectory(*components, object, path);
  if (components->empty()) {
    m_problems.report(path, "It would take the place of the root. It is left out.");
    return;
  }
  bind(*components, addNode(object), path);
}

void IndexBuilder::addInParts(std::string_view path, const Node& file,
                              std::span<const Extent> extents) {
  Node placed = file;
  placed.content = Content::Extents;
  placed.where = m_parts.extents.size();
  placed.count = static_cast<std::uint32_t>(extents.size());
  m_parts.extents.insert(m_parts.extents.end(), extents.begin(), extents.end());
  add(path, placed);
}

void IndexBuilder::addSymlink(std::string_view path, const Node& link, std::string_view target) {
  if (target.empty() || target.size() > kLongestTarget) {
    m_problems.report(path, target.empty() ? "It is a symbolic link to nothing. It is left out."
                                           : "It is a symbolic link whose text is longer than "
                                             "4,095 bytes. It is left out.");
    return;
  }
  Node placed = link;
  placed.content = Content::Text;
  placed.size = target.size();
  placed.where = m_parts.texts.size();
  placed.count = static_cast<std::uint32_t>(target.size());
  m_parts.texts.append(target);
  add(path, placed);
}

void IndexBuilder::addHardLink(std::string_view path, std::string_view target,
                               const Node* content) {
  const auto components = taken(path);
  if (!components) return;
  if (components->empty()) {
    m_problems.report(path, "It would take the place of the root. It is left out.");
    return;
  }
  const auto known = find(target);
  if (known && m_parts.nodes[*known].is(FileType::Directory)) {
    m_problems.report(path, "It is a link to a directory. It is left out.");
    return;
  }
  if (content != nullptr) {
    if (!known || !m_parts.nodes[*known].is(FileType::Regular)) return add(path, *content);
    m_parts.nodes[*known] = *content;
  }
  if (known && m_parts.nodes[*known].content != Content::Unresolved) {
    return bind(*components, *known, path);
  }
  Node placeholder;
  placeholder.content = Content::Unresolved;
  placeholder.where = m_pending.size();
  const NodeId node = addNode(placeholder);
  m_pending.push_back({node, std::string(path), std::string(target)});
  bind(*components, node, path);
}

IndexBuilder::Name IndexBuilder::nameOf(const IndexParts& parts, EntryNumber number) {
  const Entry& entry = parts.entries[number];
  return {entry.parent, std::string_view(parts.names).substr(entry.nameAt, entry.nameSize)};
}

std::optional<IndexBuilder::EntryNumber> IndexBuilder::find(const Name& name) const {
  const auto found = m_byName.find(name);
  return found != m_byName.end() ? std::optional(*found) : std::nullopt;
}

std::optional<NodeId> IndexBuilder::find(std::string_view path) const {
  NodeId at = kRoot;
  for (const std::string_view component : resolve(path)) {
    const auto entry = find(Name{at, component});
    if (!entry) return std::nullopt;
    at = m_parts.entries[*entry].node;
  }
  return at;
}

NodeId IndexBuilder::addNode(const Node& node) {
  if (m_parts.nodes.size() == kMostObjects) {
    throw SystemNfsException(EFBIG, "The archive has more than " + std::to_string(kMostObjects) +
                                        " entries, which is more than can be served.");
  }
  m_parts.nodes.push_back(node);
  return static_cast<NodeId>(m_parts.nodes.size() - 1);
}

void IndexBuilder::addEntry(const Name& name, NodeId node) {
  Entry entry;
  entry.nameAt = m_parts.names.size() & ((std::uint64_t{1} << 56U) - 1);
  entry.nameSize = name.name.size() & 255U;
  entry.parent = name.parent;
  entry.node = node;
  m_parts.names.append(name.name);
  m_parts.entries.push_back(entry);
  m_byName.insert(static_cast<EntryNumber>(m_parts.entries.size() - 1));
}

NodeId IndexBuilder::subdirectory(const Name& name, std::string_view path) {
  const auto known = find(name);
  if (known && m_parts.nodes[m_parts.entries[*known].node].is(FileType::Directory)) {
    return m_parts.entries[*known].node;
  }
  const NodeId made = addNode(m_madeUp);
  if (known) {
    m_problems.report(path, "Part [" + std::string(name.name) +
                                "] of its path was no directory before. The earlier entry is left "
                                "out.");
    m_parts.entries[*known].node = made;
  } else {
    addEntry(name, made);
  }
  return made;
}

NodeId IndexBuilder::directory(std::span<const std::string_view> components,
                               std::string_view path) {
  NodeId at = kRoot;
  for (const std::string_view component : components) at = subdirectory({at, component}, path);
  return at;
}

std::optional<std::vector<std::string_view>> IndexBuilder::taken(std::string_view path) {
  auto components = resolve(path);
  const auto isTooLong = [](std::string_view name) { return name.size() > kLongestName; };
  if (std::any_of(components.begin(), components.end(), isTooLong)) {
    m_problems.report(path, "It has a name of more than 255 bytes. It is left out.");
    return std::nullopt;
  }
  if (components.size() > kDeepest) {
    m_problems.report(path, "It is more than 1,000 directories deep. It is left out.");
    return std::nullopt;
  }
  return components;
}

void IndexBuilder::bind(std::span<const std::string_view> components, NodeId node,
                        std::string_view path) {
  const Name name{directory(components.first(components.size() - 1), path), components.back()};
  const auto known = find(name);
  if (!known) return addEntry(name, node);
  Entry& entry = m_parts.entries[*known];
  if (m_parts.nodes[entry.node].is(FileType::Directory)) {
    m_problems.report(path, "It was a directory before, which is left out with all that is in it.");
  }
  entry.node = node;
}

void IndexBuilder::addDirectory(std::span<const std::string_view> components,
                                const Node& directoryNode, std::string_view path) {
  NodeId node = kRoot;
  if (!components.empty()) {
    const Name name{directory(components.first(components.size() - 1), path), components.back()};
    const auto known = find(name);
    // What was something else gives way: the last entry of a name counts.
    if (known && !m_parts.nodes[m_parts.entries[*known].node].is(FileType::Directory)) {
      m_parts.entries[*known].node = addNode(directoryNode);
      return;
    }
    node = known ? m_parts.entries[*known].node : subdirectory(name, path);
  }
  m_parts.nodes[node] = directoryNode;
}

NodeId IndexBuilder::resolved(NodeId node) {
  // Links lead to links; those on the way are settled together, so that each is walked once.
  std::vector<NodeId> way;
  while (node != kNone && m_parts.nodes[node].content == Content::Unresolved) {
    Node& placeholder = m_parts.nodes[node];
    way.push_back(node);
    // Where a link has been followed it keeps what it leads to; kNone until that is known, so that
    // links in a circle end.
    if (placeholder.count != 0) {
      node = placeholder.names;
    } else {
      placeholder.count = 1;
      placeholder.names = kNone;
      node = find(m_pending[placeholder.where].target).value_or(kNone);
    }
  }
  if (way.empty()) return node;
  if (node != kNone && m_parts.nodes[node].is(FileType::Directory)) node = kNone;
  for (const NodeId placeholder : way) m_parts.nodes[placeholder].names = node;
  return node;
}

void IndexBuilder::resolveLinks() {
  for (const Pending& pending : m_pending) {
    const bool stands = find(pending.path) == pending.placeholder;  // no later entry has the name
    if (resolved(pending.placeholder) == kNone && stands) {
      m_problems.report(pending.path, "It is a link to [" + pending.target +
                                          "], which is no file of the archive. It is left out.");
    }
  }
  for (Entry& entry : m_parts.entries) entry.node = resolved(entry.node);
}

void IndexBuilder::sortEntries() {
  m_byName = decltype(m_byName)(0, NameHash{&m_parts}, NameEqual{&m_parts});
  std::erase_if(m_parts.entries, [](const Entry& entry) { return entry.node == kNone; });
  const auto nameOfEntry = [this](const Entry& entry) {
    return std::string_view(m_parts.names).substr(entry.nameAt, entry.nameSize);
  };
  std::sort(m_parts.entries.begin(), m_parts.entries.end(), [&](const Entry& a, const Entry& b) {
    return a.parent != b.parent ? a.parent < b.parent : nameOfEntry(a) < nameOfEntry(b);
  });
  for (Node& node : m_parts.nodes) {
    if (node.content == Content::Unresolved) node = Node();
  }
  std::size_t at = 0;
  for (const Entry& entry : m_parts.entries) {
    Node& parent = m_parts.nodes[entry.parent];
    if (parent.count++ == 0) parent.where = at;
    ++at;
  }
}

// From the root, since what was in a directory that gave way is no longer there.
void IndexBuilder::countNames() {
  m_parts.nodes[kRoot].names = 2;
  std::vector<NodeId> directories{kRoot};
  while (!directories.empty()) {
    const NodeId id = directories.back();
    directories.pop_back();
    Node& parent = m_parts.nodes[id];
    for (std::size_t i = parent.where; i < parent.where + parent.count; ++i) {
      const NodeId child = m_parts.entries[i].node;
      ++m_parts.nodes[child].names;
      if (!m_parts.nodes[child].is(FileType::Directory)) continue;
      ++m_parts.nodes[child].names;
      ++parent.names;
      directories.push_back(child);
    }
  }
}

Index IndexBuilder::finish() {
  resolveLinks();
  sortEntries();
  countNames();
  m_parts.nodes.shrink_to_fit();
  m_parts.entries.shrink_to_fit();
  m_parts.extents.shrink_to_fit();
  m_parts.names.shrink_to_fit();
  m_parts.texts.shrink_to_fit();
  return Index(std::move(m_parts));
}

}  // namespace nfslib::hosts::archive
