#pragma once

#include "archive/decoder.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace nfslib::hosts::archive {

// The memory that the compressed parts of one archive may use: blocks that were decoded, decoders
// that wait for the reader who goes on from where they stand, decoders at work, and what restart
// points hold. All of it together stays under one limit; what was not used for longest goes first.
//
// Thread-safe. Whatever is counted points here: the cache has to outlive it.
class BlockCache {
 public:
  explicit BlockCache(std::size_t limitBytes);
  BlockCache(const BlockCache&) = delete;
  BlockCache& operator=(const BlockCache&) = delete;
  ~BlockCache();

  struct Statistics {
    std::uint64_t hits = 0;          // blocks that were there
    std::uint64_t misses = 0;        // blocks that had to be decoded, or waited for
    std::uint64_t bytesDecoded = 0;  // by readers; the pass that makes an index does not count
    std::size_t bytesHeld = 0;
    std::size_t mostBytesHeld = 0;  // at any time so far
  };
  Statistics statistics() const;

  std::size_t limit() const { return m_limit; }
  // The most that a decoder may need so that it can be used under the limit at all.
  std::size_t largestDecoder() const;

  // Bytes of the limit that are in use; given back by its destructor.
  class Reservation {
   public:
    Reservation() = default;
    Reservation(Reservation&& other) noexcept { swap(other); }
    Reservation& operator=(Reservation&& other) noexcept {
      Reservation(std::move(other)).swap(*this);
      return *this;
    }
    ~Reservation();

    std::size_t bytes() const { return m_bytes; }
    // Takes `bytes` of them over to a reservation of their own; no more than there are.
    Reservation split(std::size_t bytes);

   private:
    friend class BlockCache;
    enum class Use { Working, Restart };
    Reservation(BlockCache& cache, std::size_t bytes, Use use)
        : m_cache(&cache), m_bytes(bytes), m_use(use) {}
    void swap(Reservation& other) noexcept;

    BlockCache* m_cache = nullptr;
    std::size_t m_bytes = 0;
    Use m_use = Use::Working;
  };

  // Makes room, and waits for what others use just now where that is not enough. The caller holds
  // no reservation meanwhile, or two of them could wait for each other. One that is Working,
  // because its decoder reads from another decoded source, does not wait but fails. Throws
  // SystemNfsException(ENOMEM), naming the limit, when there can be no room.
  Reservation reserve(std::size_t bytes);
  // The same without waiting: an empty reservation when there is no room.
  Reservation reserveNow(std::size_t bytes);
  // The same without letting go of anything.
  Reservation reserveUnused(std::size_t bytes);
  // For a restart point. Those get a part of the limit only, so that there is always room to work.
  Reservation reserveForRestart(std::size_t bytes);

  // While it lives, its thread works with a reservation and must not wait for another.
  class Working {
   public:
    Working();
    Working(const Working&) = delete;
    Working& operator=(const Working&) = delete;
    ~Working();
  };

  // Up to kBlockBytes of a source, fewer where it ends. Where `error` is set, a value of errno, it
  // cannot be read past them; `why` is the sentence.
  struct Block {
    std::unique_ptr<std::byte[]> bytes;
    std::size_t size = 0;
    int error = 0;
    std::string why;
    std::atomic<std::size_t> served = 0;  // bytes that readers copied, for what goes first
    Reservation room;
  };
  static constexpr std::size_t kBlockBytes = std::size_t{128} << 10;
  // What is counted for a block: its bytes and its entry here.
  static constexpr std::size_t kEntryBytes = 256;
  static constexpr std::size_t kBlockRoom = kBlockBytes + kEntryBytes;

  // A decoder that stands at a byte of its source.
  struct Parked {
    std::unique_ptr<Decoder> decoder;
    std::uint64_t offset = 0;
    Reservation room;
  };

  // Identifies a source in what follows.
  std::uint64_t newSource();
  // Lets go of everything that is kept for `source`.
  void forget(std::uint64_t source);

  // Null when it is not there. It counts as held for as long as somebody has it.
  std::shared_ptr<Block> find(std::uint64_t source, std::uint64_t index);
  void keep(std::uint64_t source, std::uint64_t index, std::shared_ptr<Block> block);
  // That block was read to its last byte, so it makes way before others.
  void wasRead(std::uint64_t source, std::uint64_t index);

  // Where the nearest decoder stands that was parked at or before `offset`.
  std::optional<std::uint64_t> nearest(std::uint64_t source, std::uint64_t offset) const;
  // Takes that decoder; its `decoder` is null when there is none any more.
  Parked take(std::uint64_t source, std::uint64_t offset);
  void park(std::uint64_t source, Parked parked);

  void countHit() { ++m_hits; }
  void countMiss() { ++m_misses; }
  void countDecoded(std::size_t bytes) { m_bytesDecoded += bytes; }

 private:
  enum class Kind { Block, Decoder };
  using Key = std::tuple<std::uint64_t, Kind, std::uint64_t>;  // source, kind, index or offset
  struct Item {
    std::shared_ptr<Block> block;
    Parked parked;
    std::list<Key>::iterator place = {};
  };
  using Items = std::map<Key, Item>;

  std::size_t forRestart() const;
  void put(const Key& key, Item item);
  Item removed(Items::iterator at);
  bool makeRoom(std::size_t bytes, std::unique_lock<std::mutex>& lock);
  Reservation taken(std::size_t bytes, Reservation::Use use);
  void release(std::size_t bytes, Reservation::Use use) noexcept;

  const std::size_t m_limit;
  std::atomic<std::uint64_t> m_hits{0};
  std::atomic<std::uint64_t> m_misses{0};
  std::atomic<std::uint64_t> m_bytesDecoded{0};
  std::atomic<std::uint64_t> m_lastSource{0};

  // Guards what follows. Innermost: what leaves the cache is destroyed after it.
  mutable std::mutex m_lock;
  std::condition_variable m_released;
  std::size_t m_held = 0;
  std::size_t m_heldForRestart = 0;  // of m_held
  std::size_t m_mostHeld = 0;
  Items m_items;
  std::list<Key> m_order;  // what goes last is in front
};

}  // namespace nfslib::hosts::archive
