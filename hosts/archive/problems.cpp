#include "archive/problems.h"

#include <nfslib/log.h>

namespace nfslib::hosts::archive {

namespace {

constexpr std::uint64_t kToldOneByOne = 100;
constexpr std::size_t kLongestShown = 300;

// The beginning of a name says enough.
std::string shortened(std::string_view name) {
  if (name.size() <= kLongestShown) return std::string(name);
  return std::string(name.substr(0, kLongestShown)) + "...";
}

}  // namespace

void Problems::report(std::string_view entry, std::string_view why) {
  if (++m_count > kToldOneByOne) return;
  const auto log = CNfsLibLogger::getInstance().getImpl();
  if (entry.empty()) {
    log->warn("Archive %1: %2", m_archive, std::string(why));
  } else {
    log->warn("Archive %1, entry [%2]: %3", m_archive, shortened(entry), std::string(why));
  }
}

void Problems::conclude() const {
  if (m_count <= kToldOneByOne) return;
  CNfsLibLogger::getInstance().getImpl()->warn("Archive %1: and %2 more problems.", m_archive,
                                               std::to_string(m_count - kToldOneByOne));
}

}  // namespace nfslib::hosts::archive
