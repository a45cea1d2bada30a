// zstd (RFC 8878): frames one after the other, some of which can be skipped.

#include "archive/stream_decoder.h"

#include <algorithm>
#include <new>
#include <utility>

#include <zstd.h>

namespace nfslib::hosts::archive {

namespace {

constexpr std::size_t kLongestHeader = 18;
constexpr std::size_t kFrameStart = 5;  // with what tells how long the header is
// What the library holds beside a frame's window: its state and two blocks of input and output.
constexpr std::uint64_t kBesideWindow = std::uint64_t{640} << 10;

std::uint64_t littleEndian(std::span<const std::uint8_t> bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) value |= std::uint64_t{bytes[i]} << (8 * i);
  return value;
}

// The memory for what the frame refers back to, section 3.1.1.1; 0 when `header` is too short.
std::uint64_t windowBytes(std::span<const std::uint8_t> header) {
  if (header.size() < 6) return 0;
  const unsigned descriptor = header[4];
  const bool isSingleSegment = (descriptor & 0x20) != 0;
  if (!isSingleSegment) {
    const std::uint64_t base = std::uint64_t{1} << (10 + (header[5] >> 3));
    return base + base / 8 * (header[5] & 7);
  }
  const std::size_t sizeAt = 5 + (std::size_t{1} << (descriptor & 3)) / 2;  // past an id
  const std::size_t sizeBytes = std::size_t{1} << (descriptor >> 6);
  if (header.size() < sizeAt + sizeBytes) return 0;
  const std::uint64_t size = littleEndian(header.subspan(sizeAt, sizeBytes));
  // No more than can be added to.
  return std::min(size + (sizeBytes == 2 ? 256 : 0), std::uint64_t{1} << 62);
}

class ZstdDecoder : public StreamDecoder {
 public:
  ZstdDecoder(std::shared_ptr<FileBytes> file, NeedMemory need, std::uint64_t offset)
      : StreamDecoder(std::move(file), offset, std::move(need)), m_context(::ZSTD_createDCtx()) {
    if (!m_context) throw std::bad_alloc();
    // What a window needs was looked at before the library sees the frame.
    const auto largest = ::ZSTD_dParam_getBounds(ZSTD_d_windowLogMax).upperBound;
    ::ZSTD_DCtx_setParameter(m_context.get(), ZSTD_d_windowLogMax, largest);
  }

 protected:
  bool beginPart() override {
    const auto header = m_input.peek(kLongestHeader);
    const auto magic = littleEndian(header.first(std::min<std::size_t>(header.size(), 4)));
    if (magic == ZSTD_MAGICNUMBER) {
      m_need(windowBytes(header) + kBesideWindow + CompressedInput::kBufferBytes);
      return true;
    }
    if ((magic & ZSTD_MAGIC_SKIPPABLE_MASK) == ZSTD_MAGIC_SKIPPABLE_START) return true;
    if (m_input.onlyZerosFollow()) return false;
    m_input.fail("what follows is not zstd");
  }

  Step decodePart(std::uint8_t* buffer, std::size_t size) override {
    // A call that meets damage loses what it has decoded, so each gets one block and no more.
    const auto available = m_input.peek();
    const auto bytes = available.first(std::min(available.size(), m_nextBytes));
    ZSTD_inBuffer in{bytes.data(), bytes.size(), 0};
    ZSTD_outBuffer out{buffer, size, 0};
    const std::size_t result = ::ZSTD_decompressStream(m_context.get(), &out, &in);
    m_input.skip(in.pos);
    if (::ZSTD_isError(result) != 0) {
      if (bytes.empty()) m_input.failAtEnd();
      m_input.fail(::ZSTD_getErrorName(result));
    }
    m_nextBytes = result == 0 ? kFrameStart : result;
    return {.size = out.pos, .ended = result == 0};
  }

  Restart restartBetweenParts() override {
    return {.make =
                [file = m_input.file(), need = m_need, offset = m_input.offset()] {
                  return std::make_unique<ZstdDecoder>(file, need, offset);
                },
            .bytes = 0};
  }

 private:
  struct Free {
    void operator()(ZSTD_DCtx* context) const { ::ZSTD_freeDCtx(context); }
  };
  std::unique_ptr<ZSTD_DCtx, Free> m_context;
  std::size_t m_nextBytes = kFrameStart;  // that the library wants
};

}  // namespace

std::unique_ptr<StreamDecoder> makeZstdDecoder(std::shared_ptr<FileBytes> file, NeedMemory need) {
  return std::make_unique<ZstdDecoder>(std::move(file), std::move(need), 0);
}

}  // namespace nfslib::hosts::archive
