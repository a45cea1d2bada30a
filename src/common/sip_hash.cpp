#include "common/sip_hash.h"

#include <bit>
#include <cstring>
#include <random>

namespace nfslib::utility {

namespace {

struct State {
  std::uint64_t a, b, c, d;

  void mix() {
    a += b;
    c += d;
    b = std::rotl(b, 13) ^ a;
    d = std::rotl(d, 16) ^ c;
    a = std::rotl(a, 32) + d;
    c += b;
    b = std::rotl(b, 17) ^ c;
    d = std::rotl(d, 21) ^ a;
    c = std::rotl(c, 32);
  }
  void take(std::uint64_t word) {
    d ^= word;
    mix();
    mix();
    a ^= word;
  }
};

// Little-endian, of up to eight bytes.
std::uint64_t wordOf(memory::const_buffer bytes) {
  std::array<std::byte, 8> padded{};
  memory::copy(bytes, {padded.data(), padded.size()});
  std::uint64_t word = 0;
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(&word, padded.data(), sizeof word);
  } else {
    for (std::size_t i = padded.size(); i-- > 0;) {
      word = word << 8U | std::to_integer<std::uint64_t>(padded[i]);
    }
  }
  return word;
}

}  // namespace

HashKey randomHashKey() {
  std::random_device source;
  const auto random64 = [&] { return (std::uint64_t{source()} << 32U) | source(); };
  return {random64(), random64()};
}

std::uint64_t sipHash(const HashKey& key, memory::const_buffer text) {
  State state{key[0] ^ 0x736F'6D65'7073'6575, key[1] ^ 0x646F'7261'6E64'6F6D,
              key[0] ^ 0x6C79'6765'6E65'7261, key[1] ^ 0x7465'6462'7974'6573};
  const std::uint64_t length = text.size();
  for (; text.size() >= 8; text += 8) state.take(wordOf({text, 8}));
  state.take(length << 56U | wordOf(text));
  state.c ^= 0xFF;
  for (int i = 0; i < 4; ++i) state.mix();
  return state.a ^ state.b ^ state.c ^ state.d;
}

}  // namespace nfslib::utility
