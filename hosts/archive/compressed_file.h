#pragma once

#include "archive/block_cache.h"
#include "archive/byte_source.h"
#include "archive/decoder.h"
#include "archive/file_bytes.h"

#include <cstdint>
#include <memory>

namespace nfslib::hosts::archive {

// A file that is compressed as a whole: gzip, bzip2, xz or zstd, also several such streams one
// after the other, with zeros behind the last. First one pass over all of it, which leaves restart
// points; then reads anywhere.
class CompressedFile {
 public:
  // Null when the first bytes of `file` are those of no method above.
  static std::unique_ptr<CompressedFile> open(std::shared_ptr<FileBytes> file,
                                              std::shared_ptr<BlockCache> cache);
  ~CompressedFile();

  // "gzip", "bzip2", "xz" or "zstd".
  const char* method() const;

  // The one pass from the first byte to the last, or to where the reader stops. Where a dictionary
  // needs more memory than the cache's limit allows, its read throws SystemNfsException(ENOMEM).
  // The decoder may outlive this object.
  std::unique_ptr<Decoder> firstPass();
  // Bytes of the file that the pass has read so far. Thread-safe.
  std::uint64_t bytesRead() const;

  // What the file holds, from the restart points that the pass has left. To be called after the
  // pass; the source may outlive this object. Each call makes a source with blocks of its own.
  std::shared_ptr<ByteSource> source();

 private:
  struct Impl;
  explicit CompressedFile(std::unique_ptr<Impl> impl);

  const std::unique_ptr<Impl> m_impl;
};

}  // namespace nfslib::hosts::archive
