#pragma once

#include "archive/compressed_input.h"
#include "archive/decoder.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace nfslib::hosts::archive {

// Told before a decoder comes to hold `bytes` of memory in all; throws when that is too much. It
// outlives the decoders, and any thread may call it.
using NeedMemory = std::function<void(std::uint64_t bytes)>;

// A decoder of a file that consists of streams, or of parts of them, one after the other. What is
// common to the methods: where such a part begins and ends, and that decoding can begin there.
class StreamDecoder : public Decoder {
 public:
  std::size_t read(void* buffer, std::size_t size) final;
  Restart restart() override;

  // How far the file was read.
  std::uint64_t inputOffset() const { return m_input.offset(); }

 protected:
  StreamDecoder(std::shared_ptr<FileBytes> file, std::uint64_t offset, NeedMemory need)
      : m_input(std::move(file), offset), m_need(std::move(need)) {}

  // Gets ready for the part that begins at the next byte of the input; false when none follows.
  virtual bool beginPart() = 0;

  struct Step {
    std::size_t size = 0;  // bytes that were put into the buffer
    bool ended = false;    // the part, behind them
  };
  // Puts some of the part's next bytes into `buffer`, up to `size`, which may be 0, and takes what
  // that needs from the input. Neither is possible only where the file ends too early.
  virtual Step decodePart(std::uint8_t* buffer, std::size_t size) = 0;

  // Called between two parts.
  virtual Restart restartBetweenParts() = 0;

  CompressedInput m_input;
  const NeedMemory m_need;
  bool m_inPart = false;
};

// By method, each from the first byte of `file` on.
std::unique_ptr<StreamDecoder> makeGzipDecoder(std::shared_ptr<FileBytes> file, NeedMemory need);
std::unique_ptr<StreamDecoder> makeBzip2Decoder(std::shared_ptr<FileBytes> file, NeedMemory need);
std::unique_ptr<StreamDecoder> makeXzDecoder(std::shared_ptr<FileBytes> file, NeedMemory need);
std::unique_ptr<StreamDecoder> makeZstdDecoder(std::shared_ptr<FileBytes> file, NeedMemory need);

}  // namespace nfslib::hosts::archive
