#pragma once

#include "archive/damaged_data.h"
#include "archive/file_bytes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>

namespace nfslib::hosts::archive {

// The bytes of a compressed file in order, through a small buffer. Used by one thread at a time.
class CompressedInput {
 public:
  static constexpr std::size_t kBufferBytes = std::size_t{64} << 10;

  CompressedInput(std::shared_ptr<FileBytes> file, std::uint64_t offset)
      : m_file(std::move(file)), m_start(offset) {}

  // At least `atLeast` of the next bytes, at most kBufferBytes; fewer only where the file ends.
  std::span<const std::uint8_t> peek(std::size_t atLeast = 1);
  // Goes past `count` of the bytes that were peeked at.
  void skip(std::size_t count) { m_begin += count; }
  // Goes to `offset`, which costs nothing close by.
  void seek(std::uint64_t offset);
  // Of the next byte in the file.
  std::uint64_t offset() const { return m_start + m_begin; }

  // Goes past the zeros that may stand behind the last stream, as on a tape. True when nothing
  // follows them.
  bool onlyZerosFollow();

  const std::shared_ptr<FileBytes>& file() const { return m_file; }
  // Throws DamagedData with a sentence that names the file and the offset and ends with `why`.
  [[noreturn]] void fail(const std::string& why) const;
  [[noreturn]] void failAtEnd() const;

 private:
  std::shared_ptr<FileBytes> m_file;
  std::uint64_t m_start;  // of the buffer in the file
  std::size_t m_begin = 0;
  std::size_t m_end = 0;
  std::unique_ptr<std::array<std::uint8_t, kBufferBytes>> m_buffer;
};

}  // namespace nfslib::hosts::archive
