#pragma once

#include "client_connection.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>

namespace bench {

using Handle = std::string;

constexpr std::uint32_t kPageSize = 32768;  // dircount and maxcount of a listing

// What the calls of an operation act on.
struct LoadTarget {
  Handle handle;                    // of the object that --path names
  std::uint64_t fileSize = 0;       // read and write
  std::uint32_t transfer = 786432;  // bytes of a READ or WRITE
  std::uint64_t entries = 1000;     // lookup: names to choose from; readdirplus: entries to expect
  bool verifyData = false;          // read: compare every byte with the pattern of the test file
  bool stable = false;              // write: FILE_SYNC instead of UNSTABLE
};

// One kind of call, made again and again. Replies are checked: a failed or short one throws.
class LoadOperation {
 public:
  explicit LoadOperation(LoadTarget target) : m_target(std::move(target)) {}
  virtual ~LoadOperation() = default;
  LoadOperation(const LoadOperation&) = delete;
  LoadOperation& operator=(const LoadOperation&) = delete;

  // Queues the next call of the slot. When `last` is set and the slot stands between two rounds of
  // its work, it queues nothing and returns false.
  virtual bool call(ClientConnection& connection, unsigned slot, bool last) = 0;
  virtual void reply(unsigned slot, Decoder results) = 0;

  // Since the start or the last reset.
  std::uint64_t bytes = 0;
  std::uint64_t entries = 0;

 protected:
  const LoadTarget m_target;
};

// READ and WRITE go through the file from its start, in whole transfers, and start again at its
// end.
class Transfer : public LoadOperation {
 public:
  explicit Transfer(LoadTarget target);

 protected:
  std::uint64_t nextOffset(unsigned slot);
  void requireWholeTransfer(std::size_t count);
  // If that is asked for: every eight bytes of the test file hold their own offset, the lowest byte
  // first.
  void verify(std::span<const std::byte> data, unsigned slot) const;

 private:
  std::uint64_t m_next = 0;
  std::array<std::uint64_t, ClientConnection::kMaxSlots> m_offsets = {};
};

// `name` is null, getattr, lookup, read, write or readdirplus.
std::unique_ptr<LoadOperation> makeOperation(const std::string& name, LoadTarget target);

// Single calls, for setting up.
Handle takeHandle(Decoder& results);
Handle mountExport(const std::string& host, unsigned short port, const std::string& path);
// Follows the components of `path` down from `root`.
Handle lookupPath(ClientConnection& connection, const Handle& root, const std::string& path);
std::uint64_t sizeOf(ClientConnection& connection, const Handle& file);

}  // namespace bench
