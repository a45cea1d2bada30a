#pragma once

#include "archive/index.h"
#include "archive/problems.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace nfslib::hosts::archive {

// Puts an index together from the entries of an archive, in their order. An entry takes the place
// of an earlier one of its name; directories keep what is in them. Directories that no entry speaks
// of are made up.
//
// Paths are resolved from the root: "", "." and a leading "/" say nothing, ".." is the directory
// above, and the root is above itself. What cannot be taken is reported and left out.
class IndexBuilder {
 public:
  // What is made up has the time `defaultTime`. `problems` outlives the builder.
  IndexBuilder(Problems& problems, std::uint32_t defaultTime);
  IndexBuilder(const IndexBuilder&) = delete;
  IndexBuilder& operator=(const IndexBuilder&) = delete;

  // The object called `path`, a directory or anything else but a symbolic link.
  void add(std::string_view path, const Node& object);
  // A file whose content is in `extents`.
  void addInParts(std::string_view path, const Node& file, std::span<const Extent> extents);
  void addSymlink(std::string_view path, const Node& link, std::string_view target);
  // One more name of `target`, which may come later. Where the entry brings the `content` itself,
  // that is what all names show from now on.
  void addHardLink(std::string_view path, std::string_view target, const Node* content);

  std::uint64_t entries() const { return m_parts.entries.size(); }
  // The index of what was added. The builder is of no more use.
  Index finish();

 private:
  using EntryNumber = std::uint32_t;
  struct Name {
    NodeId parent;
    std::string_view name;
  };
  static Name nameOf(const IndexParts& parts, EntryNumber entry);
  // Entries by parent and name.
  struct NameHash {
    using is_transparent = void;
    const IndexParts* parts;
    std::size_t operator()(const Name& name) const;
    std::size_t operator()(EntryNumber entry) const;
  };
  struct NameEqual {
    using is_transparent = void;
    const IndexParts* parts;
    bool operator()(EntryNumber a, EntryNumber b) const { return a == b; }
    bool operator()(EntryNumber entry, const Name& name) const;
    bool operator()(const Name& name, EntryNumber entry) const { return (*this)(entry, name); }
  };
  struct Pending {
    NodeId placeholder;
    std::string path;
    std::string target;
  };

  std::optional<EntryNumber> find(const Name& name) const;
  std::optional<NodeId> find(std::string_view path) const;
  NodeId addNode(const Node& node);
  void addEntry(const Name& name, NodeId node);
  // The directory `name`, made when there is none.
  NodeId subdirectory(const Name& name, std::string_view path);
  // The directory that `components` lead to.
  NodeId directory(std::span<const std::string_view> components, std::string_view path);
  // The components of `path`, resolved; nothing, and a report, when they cannot be taken.
  std::optional<std::vector<std::string_view>> taken(std::string_view path);
  // Has the name that `components` are show `node`.
  void bind(std::span<const std::string_view> components, NodeId node, std::string_view path);
  void addDirectory(std::span<const std::string_view> components, const Node& directory,
                    std::string_view path);
  // What the placeholder, or whatever `node` is, stands for in the end; kNone when for nothing.
  NodeId resolved(NodeId node);
  void resolveLinks();
  void sortEntries();
  void countNames();

  static constexpr NodeId kNone = ~NodeId{0};

  Problems& m_problems;
  const Node m_madeUp;  // a directory that no entry speaks of
  IndexParts m_parts;
  std::unordered_set<EntryNumber, NameHash, NameEqual> m_byName;
  std::vector<Pending> m_pending;
};

}  // namespace nfslib::hosts::archive
