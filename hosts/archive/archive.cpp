#include "archive/archive.h"

#include <nfslib/exception.h>

#include "archive/archive_reader.h"
#include "archive/compressed_file.h"
#include "archive/decoded_source.h"
#include "archive/deflated_member.h"
#include "archive/index_pass.h"
#include "archive/problems.h"

#include <algorithm>

#include <sys/stat.h>

namespace nfslib::hosts::archive {

namespace {

using Formats = ArchiveReader::Formats;
using Outcome = ArchiveReader::Outcome;

constexpr std::size_t kMostKept = 1024;
// libarchive does not tell what its decoders take. These are what the usual settings of the
// programs that make such archives lead to.
constexpr std::size_t kFilterBytes = std::size_t{10} << 20;
constexpr std::size_t kEntryReaderBytes = std::size_t{18} << 20;
constexpr std::size_t kIsoReaderBytes = std::size_t{1} << 20;

// What a filter that libarchive knows has made of a file.
class FilteredBytes : public Decoder {
 public:
  explicit FilteredBytes(const std::shared_ptr<FileBytes>& file, ArchiveReader::Watch watch = {})
      : m_reader(file, file->size(), Formats::Filtered, std::move(watch)),
        m_isFiltered(m_reader.next() == Outcome::Entry && m_reader.isFiltered()) {}

  bool isFiltered() const { return m_isFiltered; }
  std::size_t read(void* buffer, std::size_t size) override { return m_reader.read(buffer, size); }

 private:
  ArchiveReader m_reader;
  const bool m_isFiltered;
};

std::uint32_t modifyTimeOf(const FileBytes& file) {
  struct stat status {};
  if (::fstat(file.descriptor(), &status) != 0) return 0;
  return static_cast<std::uint32_t>(std::clamp<std::int64_t>(status.st_mtime, 0, UINT32_MAX));
}

bool isUnknown(const ArchiveReader& reader, Outcome first) {
  return first == Outcome::Broken && reader.format() == 0 &&
         reader.warning().starts_with("Unrecognized");
}

bool isReadInOrder(const ArchiveReader& reader) {
  const int format = reader.format() & ARCHIVE_FORMAT_BASE_MASK;
  return format == ARCHIVE_FORMAT_TAR || format == ARCHIVE_FORMAT_CPIO;
}

}  // namespace

// The pass over an archive.
class Archive::Opening {
 public:
  Opening(Archive& archive, const ArchiveOptions& options)
      : m_archive(archive), m_progress(options.progress), m_problems(archive.m_file->shown()) {}

  void run() {
    if (const auto compressed = CompressedFile::open(m_archive.m_file, m_archive.m_cache)) {
      readCompressed(*compressed);
    } else {
      readPlain();
    }
    m_archive.m_problems = m_problems.count();
    if (m_progress) m_progress({m_entries, m_archive.m_file->size(), m_archive.m_file->size()});
  }

 private:
  void readCompressed(CompressedFile& compressed) {
    ArchiveReader reader(compressed.firstPass(), Formats::InOrder,
                         [&](std::uint64_t) { tell(compressed.bytesRead()); });
    index(reader, reader.next());
    m_archive.m_stream = compressed.source();
  }

  void readPlain() {
    const auto& file = m_archive.m_file;
    const auto tellPosition = [&](std::uint64_t position) { tell(position); };
    ArchiveReader reader(file, file->size(), Formats::All, tellPosition);
    const Outcome first = reader.next();
    if (isUnknown(reader, first)) return readFiltered();
    m_archive.m_stream = file;
    if (isReadInOrder(reader)) {
      ArchiveReader inOrder(file, file->size(), Formats::InOrder, tellPosition);
      index(inOrder, inOrder.next());
      return;
    }
    const bool isIso = (reader.format() & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_ISO9660;
    m_archive.m_decoderBytes =
        std::min(isIso ? kIsoReaderBytes : kEntryReaderBytes, m_archive.m_cache->largestDecoder());
    m_archive.m_readers = std::make_shared<EntryReaders>(file, file->size(), index(reader, first));
  }

  void readFiltered() {
    const auto& file = m_archive.m_file;
    auto bytes =
        std::make_unique<FilteredBytes>(file, [&](std::uint64_t position) { tell(position); });
    if (!bytes->isFiltered()) refuse();
    ArchiveReader reader(std::move(bytes), Formats::InOrder);
    index(reader, reader.next());
    m_archive.m_stream = makeDecodedSource(
        m_archive.m_cache, [file] { return std::make_unique<FilteredBytes>(file); },
        std::min(kFilterBytes, m_archive.m_cache->largestDecoder()));
  }

  Members index(ArchiveReader& reader, Outcome first) {
    if (isUnknown(reader, first)) refuse();
    if (first == Outcome::Broken) {
      throw SystemNfsException(EIO, "The archive " + m_archive.m_file->shown() +
                                        " cannot be read: " + reader.warning() + ".");
    }
    IndexPass pass(reader, m_problems, modifyTimeOf(*m_archive.m_file));
    m_pass = &pass;
    m_archive.m_index = std::make_unique<const Index>(pass.run(first));
    m_entries = pass.entries();
    m_pass = nullptr;
    return pass.takeMembers();
  }

  [[noreturn]] void refuse() {
    throw SystemNfsException(
        EINVAL, m_archive.m_file->shown() +
                    " is no archive that can be served. Those are tar and cpio files, also "
                    "compressed by gzip, bzip2, xz, zstd, lz4, lzip, lzma or compress, and zip, 7z "
                    "and ISO 9660 files.");
  }

  void tell(std::uint64_t bytesRead) {
    // A zip is not read from front to back.
    m_bytesRead = std::max(m_bytesRead, bytesRead);
    if (!m_progress) return;
    m_progress({m_pass != nullptr ? m_pass->entries() : 0, m_bytesRead, m_archive.m_file->size()});
  }

  Archive& m_archive;
  const std::function<void(const ArchiveProgress&)>& m_progress;
  Problems m_problems;
  const IndexPass* m_pass = nullptr;
  std::uint64_t m_bytesRead = 0;
  std::uint64_t m_entries = 0;
};

Archive::Archive(const std::string& path, const ArchiveOptions& options)
    : m_file(std::make_shared<FileBytes>(path)),
      m_cache(std::make_shared<BlockCache>(options.cacheBytes)) {
  Opening(*this, options).run();
}

Archive::~Archive() = default;

std::shared_ptr<ByteSource> Archive::contentOf(NodeId id) {
  const Node& file = m_index->node(id);
  if (file.content == Content::Stream || file.content == Content::Extents) return m_stream;
  if (file.content != Content::Deflated && file.content != Content::Member) return nullptr;
  const bool isMember = file.content == Content::Member;
  const Key key{file.content, isMember ? m_readers->members()[file.where].group : file.where,
                isMember ? 0 : file.size};

  std::shared_ptr<ByteSource> dropped;  // freed without the lock
  const std::lock_guard lock(m_lock);
  if (const auto found = m_keptOf.find(key); found != m_keptOf.end()) {
    m_kept.splice(m_kept.begin(), m_kept, found->second);
    return found->second->second;
  }
  m_kept.emplace_front(key, makeContent(file));
  m_keptOf.emplace(key, m_kept.begin());
  if (m_kept.size() > kMostKept) {
    m_keptOf.erase(m_kept.back().first);
    dropped = std::move(m_kept.back().second);
    m_kept.pop_back();
  }
  return m_kept.front().second;
}

std::uint64_t Archive::offsetOf(const Node& file) const {
  if (file.content == Content::Stream) return file.where;
  return file.content == Content::Member ? m_readers->members().offsetInGroup(file.where) : 0;
}

std::shared_ptr<ByteSource> Archive::makeContent(const Node& file) const {
  if (file.content == Content::Deflated) {
    return makeDeflatedMember(m_file, m_cache, file.where, file.size);
  }
  return makeDecodedSource(
      m_cache,
      [readers = m_readers, group = m_readers->members()[file.where].group] {
        return readers->open(group);
      },
      m_decoderBytes);
}

}  // namespace nfslib::hosts::archive
