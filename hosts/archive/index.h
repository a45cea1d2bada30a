#pragma once

#include <nfslib/metadata.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nfslib::hosts::archive {

// The place of an object in the index.
using NodeId = std::uint32_t;
constexpr NodeId kRoot = 0;

// Where the content of an object is, and so what its `where` and `count` mean.
enum class Content : std::uint8_t {
  None,        // there is none, or nothing but zeros
  Stream,      // in one piece, from byte `where` of the archive's stream on
  Extents,     // in the `count` extents from number `where` on; zeros between them
  Deflated,    // a raw deflate stream, from byte `where` of the file on
  Member,      // libarchive reads it: member number `where` of `EntryReaders`
  Encrypted,   // it cannot be read
  Text,        // a symbolic link's: `count` bytes of the kept text from byte `where` on
  Children,    // a directory's: `count` entries from number `where` on
  Unresolved,  // while the index is built: a link to something that has not come yet, number
               // `where`
};

// One object. A million of them are kept, so fields are as small as they can be.
struct Node {
  std::uint64_t size = 0;
  std::uint64_t where = 0;
  std::uint32_t count = 0;
  std::uint32_t names = 0;  // the link count
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::uint32_t accessTime = 0;
  std::uint32_t changeTime = 0;
  std::uint32_t modifyTime = 0;
  std::uint16_t mode = 0;
  std::uint8_t type = 0;  // a FileType
  Content content = Content::None;

  bool is(FileType wanted) const { return type == static_cast<std::uint8_t>(wanted); }
};

// A name in a directory.
struct Entry {
  std::uint64_t nameAt : 56 = 0;   // in the names
  std::uint64_t nameSize : 8 = 0;  // 1 to 255
  NodeId parent = 0;
  NodeId node = 0;
};

// A part of a file that was stored. The parts of a file are in order and do not overlap.
struct Extent {
  std::uint64_t offset = 0;  // in the file
  std::uint64_t size = 0;
  std::uint64_t where = 0;  // in the archive's stream
};

// What an index is made of.
struct IndexParts {
  std::vector<Node> nodes;  // by NodeId
  std::vector<Entry> entries;
  std::vector<Extent> extents;
  std::string names;
  std::string texts;
};

// The whole tree of an archive. It never changes, so any number of threads may use it.
class Index {
 public:
  // The root is there; entries are sorted by parent and name, and each directory knows its own.
  explicit Index(IndexParts parts);

  const Node& node(NodeId id) const { return m_parts.nodes[id]; }
  MetaData metaData(NodeId id) const;
  // The entries of a directory, sorted by name.
  std::span<const Entry> children(const Node& directory) const;
  std::string_view name(const Entry& entry) const {
    return std::string_view(m_parts.names).substr(entry.nameAt, entry.nameSize);
  }
  // The entry `name` of a directory, nullptr when there is none.
  const Entry* find(const Node& directory, std::string_view name) const;
  // Of a file whose content is in extents.
  std::span<const Extent> extents(const Node& file) const;
  // The target of a symbolic link.
  std::string_view text(const Node& link) const;

  // Objects, the root included, and the bytes of the files among them.
  std::uint64_t objects() const { return m_objects; }
  std::uint64_t bytes() const { return m_bytes; }
  // What all this takes, in bytes.
  std::size_t memory() const;

 private:
  IndexParts m_parts;
  std::uint64_t m_objects = 0;
  std::uint64_t m_bytes = 0;
};

}  // namespace nfslib::hosts::archive
