#include "archive/decoded_source.h"

#include <nfslib/exception.h>

#include "archive/damaged_data.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <limits>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace nfslib::hosts::archive {

namespace {

constexpr std::uint64_t kBlockBytes = BlockCache::kBlockBytes;
constexpr std::size_t kBlockRoom = BlockCache::kBlockRoom;

using Block = BlockCache::Block;
using Buffer = std::unique_ptr<std::byte[]>;

class DecodedSource : public ByteSource {
 public:
  DecodedSource(std::shared_ptr<BlockCache> cache, std::shared_ptr<RestartPoints> points,
                std::size_t decoderBytes)
      : m_cache(std::move(cache)),
        m_points(std::move(points)),
        m_decoderBytes(decoderBytes),
        m_source(m_cache->newSource()),
        // What a kernel's read-ahead may ask for in any order.
        m_window(std::max<std::uint64_t>(
            std::min<std::uint64_t>(std::uint64_t{16} << 20, m_cache->limit() / 4) / kBlockBytes,
            1)) {}
  DecodedSource(const DecodedSource&) = delete;
  DecodedSource& operator=(const DecodedSource&) = delete;
  ~DecodedSource() override { m_cache->forget(m_source); }

  std::size_t readAt(std::uint64_t offset, void* buffer, std::size_t size) override;

 private:
  // A thread's run through the blocks from `position` up to, but not including, `until`.
  struct Run {
    std::uint64_t position = 0;
    std::uint64_t until = 0;
    std::uint64_t keepFrom = 0;  // blocks before it stay only where there is unused room
    bool ended = false;
    std::map<std::uint64_t, std::shared_ptr<Block>> wanted;  // by those who wait
  };
  // Where the source ends, with `error` because reading failed there; if that is not lasting, the
  // next reader tries again.
  struct End {
    std::uint64_t offset = 0;
    int error = 0;
    bool isLasting = true;
    std::string why;
  };
  // The decoder of a run, and the block that it fills.
  struct Work {
    BlockCache::Parked at;
    BlockCache::Reservation room;
    Buffer buffer;
    std::optional<End> end;
  };

  std::shared_ptr<Block> blockAt(std::uint64_t index);
  std::shared_ptr<Block> waitFor(std::unique_lock<std::mutex>& lock,
                                 const std::shared_ptr<Run>& run, std::uint64_t index);
  std::shared_ptr<Run> runThatServes(std::uint64_t index, std::uint64_t nearest) const;
  std::shared_ptr<Block> advance(Run& run, Work& work, const MakeDecoder& make);
  std::size_t decode(Work& work, std::size_t size);
  std::shared_ptr<Block> publish(Run& run, Work& work, std::uint64_t index, std::size_t size);
  void finish(const std::shared_ptr<Run>& run, Work& work);

  const std::shared_ptr<BlockCache> m_cache;
  const std::shared_ptr<RestartPoints> m_points;
  const std::size_t m_decoderBytes;
  const std::uint64_t m_source;
  const std::uint64_t m_window;  // in blocks

  // Guards what follows, never held while something is decoded or memory waited for. The locks of
  // the cache and of the restart points may be taken under it.
  std::mutex m_lock;
  std::condition_variable m_moved;
  std::list<std::shared_ptr<Run>> m_runs;
  std::optional<End> m_end;
};

std::size_t DecodedSource::readAt(std::uint64_t offset, void* buffer, std::size_t size) {
  size = std::min<std::uint64_t>(size, std::numeric_limits<std::uint64_t>::max() - offset);
  auto* const bytes = static_cast<std::byte*>(buffer);
  std::size_t done = 0;
  while (done < size) {
    const std::uint64_t index = (offset + done) / kBlockBytes;
    const std::size_t within = (offset + done) % kBlockBytes;
    const std::shared_ptr<Block> block = blockAt(index);
    if (!block) break;
    if (within >= block->size) {
      if (block->error != 0) throw SystemNfsException(block->error, block->why);
      break;
    }
    const std::size_t count = std::min(size - done, block->size - within);
    std::memcpy(bytes + done, block->bytes.get() + within, count);
    done += count;
    // Most readers go once through everything and then have no more use for it. Those who come
    // again keep it.
    const std::size_t before = block->served.fetch_add(count);
    if (before < block->size && before + count >= block->size) m_cache->wasRead(m_source, index);
  }
  return done;
}

// Null behind the end of the source.
std::shared_ptr<Block> DecodedSource::blockAt(std::uint64_t index) {
  const std::uint64_t offset = index * kBlockBytes;
  BlockCache::Reservation room;
  Work work;  // what is left of it goes after the lock is given back
  bool counted = false;
  std::unique_lock lock(m_lock);
  for (;;) {
    if (auto block = m_cache->find(m_source, index)) {
      if (!counted) m_cache->countHit();
      return block;
    }
    if (m_end && offset >= m_end->offset) {
      if (m_end->error != 0) throw DamagedData(m_end->why);
      return nullptr;
    }
    if (!counted) m_cache->countMiss();
    counted = true;

    const auto parkedAt = m_cache->nearest(m_source, offset);
    const RestartPoints::Point point = m_points->nearest(offset);
    const bool fromParked = parkedAt && *parkedAt >= point.offset;
    const std::uint64_t nearest = fromParked ? *parkedAt : point.offset;
    if (const auto run = runThatServes(index, nearest)) {
      // Others may need the room meanwhile.
      if (room.bytes() > 0) {
        lock.unlock();
        room = {};
        lock.lock();
        continue;
      }
      if (auto block = waitFor(lock, run, index)) return block;
      continue;
    }
    const std::size_t need = kBlockRoom + (fromParked ? 0 : m_decoderBytes);
    if (room.bytes() < need) {
      lock.unlock();
      room = {};
      room = m_cache->reserve(need);
      lock.lock();
      continue;  // much may have changed, the decoder may have made room for us
    }
    if (fromParked) {
      work.at = m_cache->take(m_source, *parkedAt);
      if (!work.at.decoder) continue;
    } else {
      work.at.offset = point.offset;
      work.at.room = room.split(m_decoderBytes);
    }
    work.room = room.split(kBlockRoom);
    room = {};

    const auto run = std::make_shared<Run>();
    run->position = (nearest + kBlockBytes - 1) / kBlockBytes;
    run->until = index + 1;
    run->keepFrom = index - std::min(index, m_window);
    m_runs.push_back(run);
    lock.unlock();
    std::shared_ptr<Block> block;
    try {
      block = advance(*run, work, point.make);
    } catch (...) {
      work.at.decoder.reset();  // nobody knows where it stands
      lock.lock();
      finish(run, work);
      throw;
    }
    lock.lock();
    finish(run, work);
    return block;
  }
}

// The run whose end, or whose way, is better waited for than to begin at `nearest`.
std::shared_ptr<DecodedSource::Run> DecodedSource::runThatServes(std::uint64_t index,
                                                                 std::uint64_t nearest) const {
  std::shared_ptr<Run> best;
  for (const auto& run : m_runs) {
    const bool passes = run->position <= index && index < run->until;
    if (passes && (index - run->position <= m_window || nearest < run->position * kBlockBytes)) {
      return run;
    }
    // It will be parked there, nearer than what there is.
    if (run->until <= index && run->until * kBlockBytes > nearest &&
        (!best || run->until > best->until)) {
      best = run;
    }
  }
  return best;
}

// Until `run` has passed that block or ended. Null when it left none; then look again.
std::shared_ptr<Block> DecodedSource::waitFor(std::unique_lock<std::mutex>& lock,
                                              const std::shared_ptr<Run>& run,
                                              std::uint64_t index) {
  if (index < run->until) {
    run->wanted.try_emplace(index);
    run->keepFrom = std::min(run->keepFrom, index);
  }
  m_moved.wait(lock, [&] { return run->ended || run->position > index; });
  const auto handed = run->wanted.find(index);
  if (handed == run->wanted.end()) return nullptr;  // another one waited, too, and it is kept
  std::shared_ptr<Block> block = std::move(handed->second);
  run->wanted.erase(handed);
  return block;
}

// Decodes up to the end of `run` and returns its last block; null where the source ends before.
std::shared_ptr<Block> DecodedSource::advance(Run& run, Work& work, const MakeDecoder& make) {
  const BlockCache::Working working;
  if (!work.at.decoder) work.at.decoder = make();
  work.buffer = std::make_unique_for_overwrite<std::byte[]>(kBlockBytes);
  std::uint64_t index = run.position;  // which only we change
  while (work.at.offset < index * kBlockBytes && !work.end) {
    decode(work, std::min(index * kBlockBytes - work.at.offset, kBlockBytes));
  }
  while (!work.end) {
    const std::size_t size = decode(work, kBlockBytes);
    const bool isLast = index + 1 == run.until;
    const bool isSomething = size > 0 || work.end->error != 0;
    const std::shared_ptr<Block> block = isSomething ? publish(run, work, index, size) : nullptr;
    if (isLast) return block;
    ++index;
  }
  if (work.end->error != 0) throw SystemNfsException(work.end->error, work.end->why);
  return nullptr;
}

// Fills the buffer with the next `size` bytes and returns their number, which is less only where
// the source ends; then the decoder is done with.
std::size_t DecodedSource::decode(Work& work, std::size_t size) {
  std::size_t done = 0;
  try {
    while (done < size) {
      const std::size_t count = work.at.decoder->read(
          work.buffer.get() + done,
          std::min<std::uint64_t>(size - done, m_points->untilNext(work.at.offset)));
      if (count == 0) {
        work.end = End{.offset = work.at.offset, .error = 0, .isLasting = true, .why = {}};
        break;
      }
      done += count;
      work.at.offset += count;
      m_cache->countDecoded(count);
      m_points->offer(work.at.offset, *work.at.decoder);
    }
  } catch (const DamagedData& e) {
    work.end = End{
        .offset = work.at.offset, .error = e.code().value(), .isLasting = true, .why = e.what()};
  } catch (const SystemNfsException& e) {
    work.end = End{
        .offset = work.at.offset, .error = e.code().value(), .isLasting = false, .why = e.what()};
  }
  if (work.end) work.at.decoder.reset();
  return done;
}

// Hands the first `size` bytes of the buffer to who waits for them and to the cache. Returns the
// block; null for one that is of no use, or for which there is no room.
std::shared_ptr<Block> DecodedSource::publish(Run& run, Work& work, std::uint64_t index,
                                              std::size_t size) {
  const bool isLast = index + 1 == run.until;
  BlockCache::Reservation next;  // for the block after this one
  if (!isLast) {
    std::unique_lock lock(m_lock);
    const bool isUseful = index >= run.keepFrom;
    lock.unlock();
    next = isUseful ? m_cache->reserveNow(kBlockRoom) : m_cache->reserveUnused(kBlockRoom);
  }
  std::shared_ptr<Block> block;
  if (isLast || next.bytes() > 0) {
    block = std::make_shared<Block>();
    if (size == kBlockBytes) {
      block->bytes = std::exchange(
          work.buffer, isLast ? nullptr : std::make_unique_for_overwrite<std::byte[]>(kBlockBytes));
    } else {
      block->bytes = std::make_unique_for_overwrite<std::byte[]>(size);
      std::memcpy(block->bytes.get(), work.buffer.get(), size);
    }
    block->size = size;
    if (work.end) block->error = work.end->error;
    if (work.end) block->why = work.end->why;
    block->room = work.room.split(size + BlockCache::kEntryBytes);
    work.room = std::move(next);
  }
  {
    const std::lock_guard lock(m_lock);
    if (block && (!work.end || work.end->isLasting)) m_cache->keep(m_source, index, block);
    if (const auto at = run.wanted.find(index); at != run.wanted.end()) at->second = block;
    run.position = index + 1;
  }
  m_moved.notify_all();
  return block;
}

// Nobody has to wait for `run` any more; its decoder stays for whoever goes on from there.
void DecodedSource::finish(const std::shared_ptr<Run>& run, Work& work) {
  run->ended = true;
  m_runs.remove(run);
  if (work.at.decoder) m_cache->park(m_source, std::move(work.at));
  if (work.end && work.end->isLasting) m_end = work.end;
  m_moved.notify_all();
}

}  // namespace

std::shared_ptr<ByteSource> makeDecodedSource(std::shared_ptr<BlockCache> cache,
                                              MakeDecoder fromStart, std::size_t decoderBytes) {
  auto points = std::make_shared<RestartPoints>(cache, std::move(fromStart));
  return makeDecodedSource(std::move(cache), std::move(points), decoderBytes);
}

std::shared_ptr<ByteSource> makeDecodedSource(std::shared_ptr<BlockCache> cache,
                                              std::shared_ptr<RestartPoints> points,
                                              std::size_t decoderBytes) {
  return std::make_shared<DecodedSource>(std::move(cache), std::move(points), decoderBytes);
}

}  // namespace nfslib::hosts::archive
