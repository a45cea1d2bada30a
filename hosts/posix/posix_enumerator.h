#pragma once

#include <nfslib/file_system.h>

#include "posix/tree.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <vector>

namespace nfslib::hosts::posix {

// A pass over a directory. Names are read a batch at a time. The attributes of the first batch, all
// that a small directory has, are read entry by entry as each has its turn. Those of later ones are
// read ahead, in a thread of their own that lasts for the batch, while the batch before is used.
//
// What was read ahead and is older than a second, or than a change through this tree, is read again
// when it is its turn. An entry that is gone by then, or whose attributes the system does not tell
// (a dead mount), is left out.
class PosixEnumerator : public DirectoryEnumerator {
 public:
  // `directory` is open for reading.
  PosixEnumerator(std::shared_ptr<Tree> tree, OpenDirectory directory);
  ~PosixEnumerator() override;

  const DirEntry& Current() const override { return m_current->entries[m_next - 1].value; }
  bool IsValid() const override { return m_valid; }
  void MoveNext() override;

 private:
  enum class State : std::uint8_t { Unread, Known, LeftOut };
  struct Entry {
    DirEntry value;
    State state = State::Unread;
  };
  struct Batch {
    std::vector<Entry> entries;  // of which `size` are in use; the rest keep their memory
    std::size_t size = 0;
    std::atomic<std::size_t> unclaimed = 0;  // from here on, nobody reads the attributes yet
    std::uint64_t changes = 0;               // ended before reading began, at `begun`
    std::chrono::steady_clock::time_point begun;
    std::future<void> reader;  // the thread that reads ahead
  };

  // The next name that the system lists; nullptr past the last one, or when it fails (`m_error`).
  // Good until the next call.
  const char* nextName();
  void readNames(Batch& batch, std::size_t limit);
  // Reads the names of the batch that follows and starts reading their attributes.
  void lookAhead();
  // Makes that batch the current one; false when there is none. Throws for what kept it from being
  // listed.
  bool turnToNextBatch();
  void readAttributes(Entry& entry);
  // Reads the attributes of entries that nobody has claimed until there are none.
  void readAttributes(Batch& batch);
  bool isFresh(const Batch& batch) const;

  const std::shared_ptr<Tree> m_tree;
  const OpenDirectory m_directory;
  std::vector<char> m_buffer;
  std::size_t m_position = 0;  // of the next record in the buffer
  std::size_t m_end = 0;       // of the last one
  bool m_allListed = false;
  int m_error = 0;              // why the listing ended early
  std::uint64_t m_changes = 0;  // ended when the batch before was begun
  bool m_valid = false;
  std::size_t m_next = 0;  // in the current batch
  // Last, so that the threads end before what they use does.
  std::array<Batch, 2> m_batches;
  Batch* m_current = &m_batches[0];
  Batch* m_ahead = &m_batches[1];
};

}  // namespace nfslib::hosts::posix
