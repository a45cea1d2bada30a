#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace nfslib {

// Two lower-case digits a byte, for log lines.
template <std::size_t N>
std::string hexadecimal(const std::array<std::byte, N>& bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(2 * N);
  for (const std::byte byte : bytes) {
    const auto value = std::to_integer<unsigned>(byte);
    text += kDigits[value >> 4U];
    text += kDigits[value & 0xFU];
  }
  return text;
}

}  // namespace nfslib
