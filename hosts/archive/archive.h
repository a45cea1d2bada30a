#pragma once

#include <nfslib/hosts/archive_file_system.h>

#include "archive/block_cache.h"
#include "archive/byte_source.h"
#include "archive/entry_readers.h"
#include "archive/file_bytes.h"
#include "archive/index.h"

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>

namespace nfslib::hosts::archive {

// An archive with its index, and what reads the content of its files. Any number of threads may use
// it.
class Archive {
 public:
  // Reads all of the archive, or its directory where it has one. Throws SystemNfsException when it
  // is none, or nothing of it can be read, and what `options.progress` throws.
  Archive(const std::string& path, const ArchiveOptions& options);
  ~Archive();

  const Index& index() const { return *m_index; }
  std::uint64_t problems() const { return m_problems; }

  // Where the bytes of a file are to be read; the same object for as long as it is in use, and
  // somewhat longer, since it knows what was decoded. Null when the file has no content to be read.
  std::shared_ptr<ByteSource> contentOf(NodeId file);
  // Where in it they begin, unless it is in extents.
  std::uint64_t offsetOf(const Node& file) const;

 private:
  // Where a content begins and its size, which an archive may tell in different ways; or its group.
  using Key = std::tuple<Content, std::uint64_t, std::uint64_t>;
  using Kept = std::list<std::pair<Key, std::shared_ptr<ByteSource>>>;

  class Opening;
  std::shared_ptr<ByteSource> makeContent(const Node& file) const;

  const std::shared_ptr<FileBytes> m_file;
  const std::shared_ptr<BlockCache> m_cache;
  std::shared_ptr<ByteSource> m_stream;  // what the archive's format is about
  std::shared_ptr<EntryReaders> m_readers;
  std::unique_ptr<const Index> m_index;
  std::uint64_t m_problems = 0;
  std::size_t m_decoderBytes = 0;  // of one of m_readers

  // The contents that were asked for last, the latest in front. Its destructor frees what was
  // decoded, outside of the lock.
  std::mutex m_lock;  // guards m_kept and m_keptOf; nothing else is locked under it
  Kept m_kept;
  std::map<Key, Kept::iterator> m_keptOf;
};

}  // namespace nfslib::hosts::archive
