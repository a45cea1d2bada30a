#include "archive/compressed_input.h"

#include <algorithm>
#include <cstring>

namespace nfslib::hosts::archive {

std::span<const std::uint8_t> CompressedInput::peek(std::size_t atLeast) {
  if (m_end - m_begin < atLeast) {
    if (!m_buffer) m_buffer = std::make_unique<std::array<std::uint8_t, kBufferBytes>>();
    std::memmove(m_buffer->data(), m_buffer->data() + m_begin, m_end - m_begin);
    m_start += m_begin;
    m_end -= m_begin;
    m_begin = 0;
    m_end += m_file->readAt(m_start + m_end, m_buffer->data() + m_end, kBufferBytes - m_end);
  }
  if (!m_buffer) return {};
  return std::span(*m_buffer).subspan(m_begin, m_end - m_begin);
}

void CompressedInput::seek(std::uint64_t offset) {
  if (offset >= m_start && offset - m_start <= m_end) {
    m_begin = static_cast<std::size_t>(offset - m_start);
    return;
  }
  m_start = offset;
  m_begin = m_end = 0;
}

bool CompressedInput::onlyZerosFollow() {
  for (;;) {
    const auto bytes = peek();
    if (bytes.empty()) return true;
    const auto other = std::find_if(bytes.begin(), bytes.end(), [](auto b) { return b != 0; });
    skip(static_cast<std::size_t>(other - bytes.begin()));
    if (other != bytes.end()) return false;
  }
}

void CompressedInput::fail(const std::string& why) const {
  throw DamagedData("Cannot decompress " + m_file->shown() + " at its byte " +
                    std::to_string(offset()) + ": " + why + ".");
}

void CompressedInput::failAtEnd() const { fail("the file ends too early"); }

}  // namespace nfslib::hosts::archive
