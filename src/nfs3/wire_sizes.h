#pragma once

#include <cstdint>

// Bytes that things take on the wire (RFC 4506), for procedures that shape a reply to the room
// left.

namespace nfslib::nfs3 {

constexpr unsigned kWordSize = 4;     // an unsigned, an enumeration, a bool
constexpr unsigned kHyperSize = 8;    // a 64-bit integer
constexpr unsigned kHandleSize = 20;  // nfs_fh3 of this server: a length word and 16 bytes
constexpr unsigned kFattr3Size = 84;  // fattr3
constexpr unsigned kPostOpAttrSize = kWordSize + kFattr3Size;

// A counted opaque or string of `length` bytes: the length word, the bytes, the padding.
constexpr std::uint64_t opaqueSize(std::uint64_t length) {
  return kWordSize + (length + 3) / 4 * 4;
}

// The longest counted opaque that `space` bytes hold, counting from its length word.
constexpr unsigned longestOpaque(unsigned space) {
  return space < kWordSize ? 0 : (space - kWordSize) / 4 * 4;
}

}  // namespace nfslib::nfs3
