#pragma once

#include "archive/block_cache.h"
#include "archive/byte_source.h"
#include "archive/decoder.h"
#include "archive/restart_points.h"

#include <cstddef>
#include <memory>

namespace nfslib::hosts::archive {

// Random access to what a sequential decoder yields. A read goes on with the nearest decoder that
// stands at or before it, or begins at the nearest restart point, `fromStart` at worst; blocks
// that are passed on the way stay in `cache` as far as they are of use, and the decoder is parked
// there. Each block is decoded by one thread while others who want it wait.
//
// A decoder that throws DamagedData is believed: nothing behind that byte is tried again. After any
// other SystemNfsException the next read tries anew.
//
// `decoderBytes` is the memory that one decoder needs; the cache counts it for each. Where it is
// more than the limit allows reads fail with ENOMEM, and say so.
//
// What is kept in the cache goes when the source does: keep the source while it may be read again.
std::shared_ptr<ByteSource> makeDecodedSource(std::shared_ptr<BlockCache> cache,
                                              MakeDecoder fromStart, std::size_t decoderBytes);

// The same with restart points that somebody else knows already.
std::shared_ptr<ByteSource> makeDecodedSource(std::shared_ptr<BlockCache> cache,
                                              std::shared_ptr<RestartPoints> points,
                                              std::size_t decoderBytes);

}  // namespace nfslib::hosts::archive
