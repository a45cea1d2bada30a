#include "common/sip_hash.h"

#include <array>

#include <gmock/gmock.h>

namespace nfslib::utility {
namespace {

// The vectors of the paper that defines SipHash: the key and the text count up from 0.
TEST(SipHashTest, HashesAsItsAuthorsHaveIt) {
  const HashKey key{0x0706'0504'0302'0100, 0x0F0E'0D0C'0B0A'0908};
  std::array<std::byte, 16> text{};
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<std::byte>(i);
  EXPECT_EQ(sipHash(key, {text.data(), 0}), 0x726F'DB47'DD0E'0E31);
  EXPECT_EQ(sipHash(key, {text.data(), 8}), 0x93F5'F579'9A93'2462);
  EXPECT_EQ(sipHash(key, {text.data(), 15}), 0xA129'CA61'49BE'45E5);
  EXPECT_NE(randomHashKey(), randomHashKey());
}

}  // namespace
}  // namespace nfslib::utility
