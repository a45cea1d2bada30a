#pragma once

#include "archive/block_cache.h"
#include "archive/decoder.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace nfslib::hosts::archive {

// Where decoding a source can begin: at its first byte, and at points which decoders that pass
// leave behind. Their distance grows when they come to hold more than their part of the cache.
//
// Thread-safe.
class RestartPoints {
 public:
  RestartPoints(std::shared_ptr<BlockCache> cache, MakeDecoder fromStart);

  struct Point {
    std::uint64_t offset = 0;
    MakeDecoder make;
  };
  // The last one at or before `offset`; there always is one.
  Point nearest(std::uint64_t offset) const;

  // How many bytes a decoder that stands at `offset` should read before it is offered next; at
  // least 1.
  std::uint64_t untilNext(std::uint64_t offset) const;
  // Leaves a point at `offset`, where `decoder` stands, if one is wanted there and it can.
  void offer(std::uint64_t offset, Decoder& decoder);

 private:
  struct Kept {
    MakeDecoder make;
    BlockCache::Reservation room;
  };
  bool wanted(std::uint64_t offset) const;
  std::map<std::uint64_t, Kept> thinOut();

  const std::shared_ptr<BlockCache> m_cache;
  mutable std::mutex m_lock;  // guards what follows; the cache's lock may be taken under it
  std::uint64_t m_interval;
  std::map<std::uint64_t, Kept> m_points;
};

}  // namespace nfslib::hosts::archive
