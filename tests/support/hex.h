#pragma once

#include "common/buffers.h"
#include "common/memory_stream.h"

#include <cstddef>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

// Wire bytes as text: two digits a byte, a blank between words of four, as they stand in the RFCs.

namespace nfslib::testing {

inline std::string hex(memory::const_buffer bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto bits = std::to_integer<unsigned>(*bytes[i]);
    if (i != 0 && i % 4 == 0) text += ' ';
    (text += digits[bits >> 4U]) += digits[bits & 15U];
  }
  return text;
}

inline std::vector<std::byte> unhex(std::string_view text) {
  std::vector<std::byte> bytes;
  std::string digits;
  for (const char c : text) {
    if (c == ' ') continue;
    digits += c;
    if (digits.size() < 2) continue;
    bytes.push_back(static_cast<std::byte>(std::strtoul(digits.c_str(), nullptr, 16)));
    digits.clear();
  }
  return bytes;
}

// Gives the stream the request written as `text`.
inline void setInput(MemoryStream& stream, std::string_view text) {
  const auto bytes = unhex(text);
  stream.setInputData({bytes.data(), bytes.size()});
}

}  // namespace nfslib::testing
