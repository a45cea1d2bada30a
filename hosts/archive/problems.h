#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace nfslib::hosts::archive {

// What is wrong with an archive: each problem a warning in the log, up to a number, and counted.
// Used by one thread.
class Problems {
 public:
  // `archive` is its path as messages show it.
  explicit Problems(std::string archive) : m_archive(std::move(archive)) {}

  // `why` is a sentence. `entry` may be empty: then it is about the archive as a whole.
  void report(std::string_view entry, std::string_view why);
  // Tells the log how many more there were than it was told of.
  void conclude() const;

  std::uint64_t count() const { return m_count; }

 private:
  const std::string m_archive;
  std::uint64_t m_count = 0;
};

}  // namespace nfslib::hosts::archive
