#include "archive/archive_reader.h"

#include <nfslib/exception.h>

#include <algorithm>
#include <cstdio>
#include <new>
#include <utility>

namespace nfslib::hosts::archive {

namespace {

constexpr std::size_t kBufferBytes = 256 * 1024;
// What libarchive gets at a time where it may skip the rest: the headers of large members are far
// apart.
constexpr std::size_t kPieceBytes = 64 * 1024;

// libarchive converts names that are marked as UTF-8, or are in UTF-16, to the character set of the
// thread's locale. Where all names are to stay as they are stored that is a set in which they
// cannot be said, so that it leaves them alone; else it is UTF-8.
locale_t localeOf(ArchiveReader::Formats formats) {
  static const locale_t plain = ::newlocale(LC_ALL_MASK, "C", nullptr);
  static const locale_t utf8 = ::newlocale(LC_ALL_MASK, "C.UTF-8", nullptr);
  const bool isPlain = formats != ArchiveReader::Formats::All || utf8 == nullptr;
  return isPlain ? plain : utf8;
}

// Its complaints about names that it has left alone are none of ours.
bool isAboutConversion(const std::string& warning) {
  return warning.find("converted from") != std::string::npos;
}

}  // namespace

// This thread's locale while it lives.
struct ArchiveReader::Locale {
  explicit Locale(locale_t wanted) : previous(::uselocale(wanted)) {}
  ~Locale() { ::uselocale(previous); }
  Locale(const Locale&) = delete;
  Locale& operator=(const Locale&) = delete;

  const locale_t previous;
};

ArchiveReader::ArchiveReader(Formats formats, Watch watch, std::size_t bufferBytes)
    : m_formats(formats),
      m_watch(std::move(watch)),
      m_buffer(bufferBytes),
      m_archive(archive_read_new()) {
  if (!m_archive) throw std::bad_alloc();
}

ArchiveReader::ArchiveReader(std::shared_ptr<ByteSource> source, std::uint64_t size,
                             Formats formats, Watch watch)
    : ArchiveReader(formats, std::move(watch), kPieceBytes) {
  m_source = std::move(source);
  m_size = size;
  archive_read_set_skip_callback(m_archive.get(), &ArchiveReader::onSkip);
  archive_read_set_seek_callback(m_archive.get(), &ArchiveReader::onSeek);
  open();
}

ArchiveReader::ArchiveReader(std::unique_ptr<Decoder> decoder, Formats formats, Watch watch)
    : ArchiveReader(formats, std::move(watch), kBufferBytes) {
  m_decoder = std::move(decoder);
  open();
}

ArchiveReader::~ArchiveReader() = default;

template <class Call>
auto ArchiveReader::guarded(Call call) {
  const Locale locale(localeOf(m_formats));
  m_callers = locale.previous;
  const auto result = call();
  if (m_givenUp) std::rethrow_exception(std::exchange(m_givenUp, nullptr));
  return result;
}

void ArchiveReader::open() {
  ::archive* const handle = m_archive.get();
  if (m_formats == Formats::Filtered) {
    archive_read_support_format_raw(handle);
    archive_read_support_filter_compress(handle);
    archive_read_support_filter_lz4(handle);
    archive_read_support_filter_lzip(handle);
    archive_read_support_filter_lzma(handle);
  } else {
    archive_read_support_format_tar(handle);
    archive_read_support_format_cpio(handle);
  }
  if (m_formats == Formats::All) {
    archive_read_support_format_zip(handle);
    archive_read_support_format_7zip(handle);
    archive_read_support_format_iso9660(handle);
  }
  archive_read_set_callback_data(handle, this);
  archive_read_set_read_callback(handle, &ArchiveReader::onRead);
  // That something is wrong with the first bytes shows again with the first entry.
  guarded([&] { return archive_read_open1(handle); });
}

std::string ArchiveReader::reason() const {
  const char* const text = archive_error_string(m_archive.get());
  return text != nullptr ? text : "it is damaged";
}

ArchiveReader::Outcome ArchiveReader::next() {
  m_warning.clear();
  const int result = guarded([&] { return archive_read_next_header(m_archive.get(), &m_entry); });
  if (result == ARCHIVE_EOF) return Outcome::End;
  if (result == ARCHIVE_OK) return Outcome::Entry;
  m_warning = reason();
  if (result == ARCHIVE_WARN) {
    if (isAboutConversion(m_warning)) m_warning.clear();
    return Outcome::Entry;
  }
  return result == ARCHIVE_FATAL ? Outcome::Broken : Outcome::Damaged;
}

std::uint64_t ArchiveReader::position() const {
  const la_int64_t position = archive_filter_bytes(m_archive.get(), 0);
  return static_cast<std::uint64_t>(std::max<la_int64_t>(position, 0));
}

std::size_t ArchiveReader::read(void* buffer, std::size_t size) {
  const la_ssize_t done = guarded([&] { return archive_read_data(m_archive.get(), buffer, size); });
  if (done < 0) throw SystemNfsException(EIO, "The content is damaged: " + reason() + ".");
  return static_cast<std::size_t>(done);
}

bool ArchiveReader::skip() {
  const int result = guarded([&] { return archive_read_data_skip(m_archive.get()); });
  m_warning = result < ARCHIVE_WARN ? reason() : "";
  return result >= ARCHIVE_WARN;
}

std::size_t ArchiveReader::readInput() {
  if (m_watch) {
    const Locale callers(m_callers);
    try {
      m_watch(m_position);
    } catch (...) {
      m_givenUp = std::current_exception();
      throw;
    }
  }
  std::size_t done = 0;
  if (m_decoder) {
    done = m_decoder->read(m_buffer.data(), m_buffer.size());
  } else if (m_position < m_size) {
    const auto left = std::min<std::uint64_t>(m_size - m_position, m_buffer.size());
    done = m_source->readAt(m_position, m_buffer.data(), static_cast<std::size_t>(left));
  }
  m_position += done;
  return done;
}

la_ssize_t ArchiveReader::onRead(::archive* handle, void* self, const void** buffer) {
  auto& reader = *static_cast<ArchiveReader*>(self);
  try {
    const std::size_t done = reader.readInput();
    *buffer = reader.m_buffer.data();
    return static_cast<la_ssize_t>(done);
  } catch (const std::exception& e) {  // must not pass through C
    archive_set_error(handle, EIO, "%s", e.what());
  } catch (...) {
    archive_set_error(handle, EIO, "The input cannot be read");
  }
  return ARCHIVE_FATAL;
}

la_int64_t ArchiveReader::onSkip(::archive*, void* self, la_int64_t request) {
  auto& reader = *static_cast<ArchiveReader*>(self);
  const std::uint64_t left = reader.m_size - std::min(reader.m_position, reader.m_size);
  const auto skipped = std::min(static_cast<std::uint64_t>(std::max<la_int64_t>(request, 0)), left);
  reader.m_position += skipped;
  return static_cast<la_int64_t>(skipped);
}

la_int64_t ArchiveReader::onSeek(::archive* handle, void* self, la_int64_t offset, int whence) {
  auto& reader = *static_cast<ArchiveReader*>(self);
  la_int64_t position = 0;
  if (whence == SEEK_CUR) position = static_cast<la_int64_t>(reader.m_position);
  if (whence == SEEK_END) position = static_cast<la_int64_t>(reader.m_size);
  if (__builtin_add_overflow(position, offset, &position) || position < 0) {
    archive_set_error(handle, EINVAL, "It points to a place outside of the file");
    return ARCHIVE_FATAL;
  }
  reader.m_position = static_cast<std::uint64_t>(position);
  return position;
}

}  // namespace nfslib::hosts::archive
