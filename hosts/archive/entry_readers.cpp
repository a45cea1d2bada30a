#include "archive/entry_readers.h"

#include <nfslib/exception.h>

#include <algorithm>
#include <string>
#include <utility>

namespace nfslib::hosts::archive {

namespace {

// Each may hold a dictionary of some MiB.
constexpr std::size_t kMostIdle = 2;
// Small enough that it does not take long to decode a group up to a member in it, and that the
// cache has room for a few.
constexpr std::uint64_t kLargestGroup = 64U << 20U;

}  // namespace

std::size_t Members::add(std::uint64_t entry, std::uint64_t size, bool isPacked) {
  Member member{entry, size, 0, m_members.size()};
  if (!m_members.empty()) {
    const Member& last = m_members.back();
    // Sums of the sizes that an archive claims may overflow; in a group they do not.
    member.before = last.before + last.size;
    const std::uint64_t end = member.before - m_members[last.group].before;
    if (isPacked && last.size <= kLargestGroup && end <= kLargestGroup &&
        size <= kLargestGroup - end) {
      member.group = last.group;
    }
  }
  m_arePacked = m_arePacked || isPacked;
  m_members.push_back(member);
  return m_members.size() - 1;
}

class EntryReaders::GroupDecoder : public Decoder {
 public:
  GroupDecoder(std::shared_ptr<EntryReaders> home, Positioned reader, std::size_t group)
      : m_home(std::move(home)),
        m_reader(std::move(reader)),
        m_group(group),
        m_member(group),
        m_left(m_home->members()[group].size) {}
  ~GroupDecoder() override {
    if (m_reader.reader) m_home->giveBack(std::move(m_reader));
  }
  GroupDecoder(const GroupDecoder&) = delete;
  GroupDecoder& operator=(const GroupDecoder&) = delete;

  std::size_t read(void* buffer, std::size_t size) override {
    if (m_isAtEnd || size == 0) return 0;
    try {
      if (!m_reader.reader) throw SystemNfsException(EIO, "The content is damaged.");
      // Only now: what is wrong behind a member is no concern of its own readers.
      if (std::exchange(m_mustAdvance, false)) advance(m_reader, m_home->members()[m_member]);
      const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size, m_left));
      const std::size_t done = m_reader.reader->read(buffer, wanted);
      if (done == 0) throw SystemNfsException(EIO, "The content ends before its time.");
      m_left -= done;
      if (m_left == 0) turnToNext();
      return done;
    } catch (...) {
      m_reader.reader.reset();  // of no use to others
      throw;
    }
  }

 private:
  // Behind the last member somebody else may go on with the reader.
  void turnToNext() {
    const Members& members = m_home->members();
    m_reader.passed += members[m_member++].size;
    m_isAtEnd = m_member == members.size() || members[m_member].group != m_group;
    if (m_isAtEnd) return m_home->giveBack(std::exchange(m_reader, {}));
    m_left = members[m_member].size;
    m_mustAdvance = true;
  }

  const std::shared_ptr<EntryReaders> m_home;
  Positioned m_reader;
  const std::size_t m_group;
  std::size_t m_member;
  std::uint64_t m_left;  // of the member
  bool m_mustAdvance = false;
  bool m_isAtEnd = false;
};

EntryReaders::EntryReaders(std::shared_ptr<ByteSource> source, std::uint64_t size, Members members)
    : m_source(std::move(source)), m_size(size), m_members(std::move(members)) {
  m_idle.reserve(kMostIdle + 1);  // so that a destructor can give back without a failure
}

EntryReaders::Positioned EntryReaders::take(const Member& member) {
  {
    const std::lock_guard lock(m_lock);
    auto best = m_idle.end();
    for (auto it = m_idle.begin(); it != m_idle.end(); ++it) {
      // libarchive decodes on the way, except with a reader that has not read anything.
      const bool isFar = m_members.arePacked() && member.before - it->passed > kLargestGroup;
      if (it->next <= member.entry && !isFar && (best == m_idle.end() || it->next > best->next))
        best = it;
    }
    if (best != m_idle.end()) {
      Positioned found = std::move(*best);
      m_idle.erase(best);
      return found;
    }
  }
  return {std::make_unique<ArchiveReader>(m_source, m_size, ArchiveReader::Formats::All), 0, 0};
}

void EntryReaders::giveBack(Positioned reader) {
  Positioned oldest;  // freed without the lock
  const std::lock_guard lock(m_lock);
  m_idle.push_back(std::move(reader));
  if (m_idle.size() <= kMostIdle) return;
  oldest = std::move(m_idle.front());
  m_idle.erase(m_idle.begin());
}

void EntryReaders::advance(Positioned& at, const Member& member) {
  using Outcome = ArchiveReader::Outcome;
  // The same way as the pass that made the index; where that found none, neither do we.
  bool wasDamaged = false;
  std::uint64_t position = 0;
  while (at.next <= member.entry) {
    const Outcome outcome = at.reader->next();
    if (outcome == Outcome::Entry) ++at.next;
    const bool isStuck =
        outcome == Outcome::Damaged && wasDamaged && at.reader->position() <= position;
    wasDamaged = outcome == Outcome::Damaged;
    if (wasDamaged) position = at.reader->position();
    if (outcome == Outcome::Broken || outcome == Outcome::End || isStuck) {
      throw SystemNfsException(
          EIO, "The entry is no longer found in the archive: " +
                   (outcome == Outcome::End ? "it ends before it" : at.reader->warning()) +
                   ". Has the file been changed?");
    }
  }
  at.passed = member.before;
}

std::unique_ptr<Decoder> EntryReaders::open(std::size_t group) {
  Positioned at = take(m_members[group]);
  advance(at, m_members[group]);
  return std::make_unique<GroupDecoder>(shared_from_this(), std::move(at), group);
}

}  // namespace nfslib::hosts::archive
