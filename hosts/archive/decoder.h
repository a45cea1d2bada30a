#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace nfslib::hosts::archive {

// Yields the bytes of a compressed source from some offset on, in order. Used by one thread at a
// time.
class Decoder {
 public:
  // Fills `buffer` with up to `size` of the next bytes and returns their number, 0 at the end.
  // Throws SystemNfsException(EIO) where what is stored is damaged.
  virtual std::size_t read(void* buffer, std::size_t size) = 0;
  virtual ~Decoder() = default;
};

// A decoder that stands at the first byte.
using MakeDecoder = std::function<std::unique_ptr<Decoder>()>;

}  // namespace nfslib::hosts::archive
