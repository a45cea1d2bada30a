#pragma once

#include "archive/block_cache.h"
#include "archive/file_bytes.h"

#include <cstdint>
#include <memory>

namespace nfslib::hosts::archive {

// What the raw deflate stream (zip's method 8) that begins at byte `offset` of `file` holds: `size`
// bytes, and damage (EIO) where the stream ends before.
std::shared_ptr<ByteSource> makeDeflatedMember(std::shared_ptr<FileBytes> file,
                                               std::shared_ptr<BlockCache> cache,
                                               std::uint64_t offset, std::uint64_t size);

}  // namespace nfslib::hosts::archive
