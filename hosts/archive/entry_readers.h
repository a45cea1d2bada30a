#pragma once

#include "archive/archive_reader.h"
#include "archive/byte_source.h"
#include "archive/decoder.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace nfslib::hosts::archive {

// A file whose content only libarchive can read. Members that are packed together make a group and
// are decoded as one, so that those who read them side by side share the work.
struct Member {
  std::uint64_t entry = 0;   // its number among the archive's entries, counted from 0
  std::uint64_t size = 0;    // of its content
  std::uint64_t before = 0;  // bytes that the members before it have
  std::size_t group = 0;     // the number of the first member of its group
};

// The members of an archive in their order.
class Members {
 public:
  // Adds a member and returns its number. One that `isPacked` may share a group with the one
  // before.
  std::size_t add(std::uint64_t entry, std::uint64_t size, bool isPacked);
  // Whether what lies between two members may have to be decoded to get from one to the other.
  bool arePacked() const { return m_arePacked; }
  // Where the content of a member begins in that of its group.
  std::uint64_t offsetInGroup(std::size_t number) const {
    return m_members[number].before - m_members[m_members[number].group].before;
  }

  const Member& operator[](std::size_t number) const { return m_members[number]; }
  std::size_t size() const { return m_members.size(); }

 private:
  std::vector<Member> m_members;
  bool m_arePacked = false;
};

// Yields what the members of an archive hold. libarchive finds an entry by going through those
// before it, and in some formats decodes what they hold on the way, so readers that have done their
// work are kept and go on from where they are: who reads the groups in their order decodes the
// archive once.
//
// Thread-safe. To be held by a shared_ptr.
class EntryReaders : public std::enable_shared_from_this<EntryReaders> {
 public:
  // Of the archive that is the `size` bytes of `source`.
  EntryReaders(std::shared_ptr<ByteSource> source, std::uint64_t size, Members members);

  const Members& members() const { return m_members; }
  // The content of a group, whose number is that of its first member. Throws
  // SystemNfsException(EIO) when it cannot be found.
  std::unique_ptr<Decoder> open(std::size_t group);

 private:
  class GroupDecoder;
  struct Positioned {
    std::unique_ptr<ArchiveReader> reader;
    std::uint64_t next = 0;    // the entry that comes next
    std::uint64_t passed = 0;  // bytes that the members before where it stands have
  };

  // The reader that has the shortest way to `member`.
  Positioned take(const Member& member);
  // Takes the reader to `member`.
  static void advance(Positioned& at, const Member& member);
  void giveBack(Positioned reader);

  const std::shared_ptr<ByteSource> m_source;
  const std::uint64_t m_size;
  const Members m_members;
  std::mutex m_lock;               // guards m_idle; nothing is read under it
  std::vector<Positioned> m_idle;  // a few
};

}  // namespace nfslib::hosts::archive
