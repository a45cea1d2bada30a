#pragma once

#include "archive/compressed_input.h"

#include <cstddef>
#include <cstdint>
#include <memory>

#include <zlib.h>

namespace nfslib::hosts::archive {

// A zlib stream that is being decompressed. A copy goes on from the same byte.
class Inflater {
 public:
  // A decoder's memory: zlib's own state with a window of 32 KiB, and what is counted beside it.
  static constexpr std::size_t kStateBytes = std::size_t{44} << 10;
  static constexpr std::size_t kDecoderBytes = kStateBytes + CompressedInput::kBufferBytes;

  // `windowBits` as in zlib's inflateInit2.
  explicit Inflater(int windowBits);
  Inflater(const Inflater& other);
  Inflater& operator=(const Inflater&) = delete;
  ~Inflater();

  void reset();
  struct Step {
    std::size_t size = 0;
    bool ended = false;
  };
  // Fills `buffer` from what is left of `input`, as far as that goes at once.
  Step inflate(CompressedInput& input, std::uint8_t* buffer, std::size_t size);

 private:
  // zlib keeps the address and does not change what it copies from.
  mutable z_stream m_stream{};
};

}  // namespace nfslib::hosts::archive
