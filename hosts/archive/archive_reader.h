#pragma once

#include "archive/byte_source.h"
#include "archive/decoder.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <archive.h>
#include <archive_entry.h>
#include <locale.h>

namespace nfslib::hosts::archive {

// libarchive over bytes of ours: the entries of an archive, one after the other.
//
// Names come as UTF-8, or byte for byte as they are stored, whatever the locale of the process is.
// Used by one thread at a time.
class ArchiveReader {
 public:
  enum class Formats {
    All,       // tar, cpio, zip, 7z, ISO 9660
    InOrder,   // those that are read from front to back: tar and cpio
    Filtered,  // none: what lz4, lzip, lzma or compress have made of a file, as the only entry
  };
  // Told, with libarchive's place in the input, each time that more of it is read. What it throws
  // comes out of the operation that it was called from.
  using Watch = std::function<void(std::uint64_t position)>;

  // Reads the `size` bytes of `source`, and those only that it needs.
  ArchiveReader(std::shared_ptr<ByteSource> source, std::uint64_t size, Formats formats,
                Watch watch = {});
  // Reads what `decoder` yields, all of it.
  ArchiveReader(std::unique_ptr<Decoder> decoder, Formats formats, Watch watch = {});
  ArchiveReader(const ArchiveReader&) = delete;
  ArchiveReader& operator=(const ArchiveReader&) = delete;
  ~ArchiveReader();

  enum class Outcome {
    Entry,    // there is one; `warning` may say that not all is well with it
    Damaged,  // there was something that is none; `warning` says what, and there may be more
    Broken,   // nothing more can be read; `warning` says why
    End,
  };
  Outcome next();
  // The entry, until `next` is called again.
  archive_entry* entry() const { return m_entry; }
  const std::string& warning() const { return m_warning; }

  // libarchive's number for the format, known from the first entry on, and its name, which tells
  // more of each entry.
  int format() const { return archive_format(m_archive.get()); }
  const char* formatName() const { return archive_format_name(m_archive.get()); }
  // Whether a filter was found before the archive.
  bool isFiltered() const { return archive_filter_count(m_archive.get()) > 1; }
  // Where libarchive stands in what its filter yields: after `next`, at the content of the entry
  // for formats that store it in one piece.
  std::uint64_t position() const;

  // The next bytes of the entry, holes as zeros; 0 at its end. Throws SystemNfsException(EIO).
  std::size_t read(void* buffer, std::size_t size);
  // Goes to the end of the entry; false, and a warning, when it is not there.
  bool skip();

 private:
  struct Locale;
  struct Free {
    void operator()(::archive* handle) const { archive_read_free(handle); }
  };

  ArchiveReader(Formats formats, Watch watch, std::size_t bufferBytes);
  void open();
  // The next bytes of the input, 0 at its end.
  std::size_t readInput();
  // What `call` of libarchive returns, in the locale that suits; throws what the watch has thrown.
  template <class Call>
  auto guarded(Call call);
  // Libarchive's word for what is wrong.
  std::string reason() const;

  static la_ssize_t onRead(::archive* handle, void* self, const void** buffer);
  static la_int64_t onSkip(::archive* handle, void* self, la_int64_t request);
  static la_int64_t onSeek(::archive* handle, void* self, la_int64_t offset, int whence);

  const Formats m_formats;
  std::shared_ptr<ByteSource> m_source;
  std::uint64_t m_size = 0;  // of the source
  std::unique_ptr<Decoder> m_decoder;
  const Watch m_watch;
  std::uint64_t m_position = 0;  // in the input
  std::vector<char> m_buffer;
  locale_t m_callers = nullptr;  // the locale of the thread outside
  std::exception_ptr m_givenUp;  // by the watch
  std::string m_warning;
  archive_entry* m_entry = nullptr;
  std::unique_ptr<::archive, Free> m_archive;  // last: it calls back until it is gone
};

}  // namespace nfslib::hosts::archive
