#pragma once

#include "archive/archive_reader.h"
#include "archive/entry_readers.h"
#include "archive/index_builder.h"
#include "archive/problems.h"

#include <cstdint>
#include <string>
#include <utility>

namespace nfslib::hosts::archive {

// The one pass over the entries of an archive that makes its index. A damaged archive yields what
// comes before the damage, and where its format lets libarchive find its way again, what comes
// behind.
class IndexPass {
 public:
  // All of them outlive this object. What has no time of its own gets `defaultTime`.
  IndexPass(ArchiveReader& reader, Problems& problems, std::uint32_t defaultTime)
      : m_reader(reader),
        m_problems(problems),
        m_builder(problems, defaultTime),
        m_time(defaultTime) {}

  // Goes through the archive. `first` is what the reader's first `next` has returned.
  Index run(ArchiveReader::Outcome first);
  // What only libarchive can read. To be called once, after `run`.
  Members takeMembers() { return std::move(m_members); }
  // Entries so far.
  std::uint64_t entries() const { return m_number; }

 private:
  void take();
  void takeFile(const std::string& path, Node& node);
  void takeParts(const std::string& path, Node& node);
  Node attributes() const;
  // Fills in where the entry's content is; its size too, where the archive does not tell.
  void locate(const std::string& path, Node& node);
  std::uint64_t countContent(const std::string& path);

  ArchiveReader& m_reader;
  Problems& m_problems;
  IndexBuilder m_builder;
  Members m_members;
  const std::uint32_t m_time;
  std::uint64_t m_number = 0;  // of the entry that comes next
};

}  // namespace nfslib::hosts::archive
