#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace nfslib::hosts::archive {

class Decoder;

// A decoder that stands at the first byte, or at the byte where a restart point was taken. Any
// thread may call it, also while decoders that it made are in use.
using MakeDecoder = std::function<std::unique_ptr<Decoder>()>;

// Yields the bytes of a compressed source from some offset on, in order. Used by one thread at a
// time.
class Decoder {
 public:
  // Fills `buffer` with up to `size` of the next bytes and returns their number, 0 at the end.
  // Throws SystemNfsException(EIO) where what is stored is damaged.
  virtual std::size_t read(void* buffer, std::size_t size) = 0;
  virtual ~Decoder() = default;

  // What it takes to go on later from where this decoder stands now: `make`, which is empty where
  // that cannot be done, and the bytes of memory that `make` holds.
  struct Restart {
    MakeDecoder make = {};
    std::size_t bytes = 0;
  };
  virtual Restart restart() { return {}; }
};

}  // namespace nfslib::hosts::archive
