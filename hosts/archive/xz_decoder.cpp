// xz: streams of blocks, each stream with an index of its blocks at its end.

#include "archive/stream_decoder.h"

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <utility>

#include <lzma.h>

namespace nfslib::hosts::archive {

namespace {

class XzDecoder : public StreamDecoder {
 public:
  XzDecoder(std::shared_ptr<FileBytes> file, NeedMemory need)
      : StreamDecoder(std::move(file), 0, std::move(need)) {}
  // `offset` is that of a block of a stream that began with `flags`.
  XzDecoder(std::shared_ptr<FileBytes> file, NeedMemory need, std::uint64_t offset,
            const lzma_stream_flags& flags)
      : StreamDecoder(std::move(file), offset, std::move(need)), m_inStream(true), m_flags(flags) {}
  XzDecoder(const XzDecoder&) = delete;
  XzDecoder& operator=(const XzDecoder&) = delete;
  ~XzDecoder() override {
    ::lzma_end(&m_coder);
    ::lzma_filters_free(m_filters.data(), nullptr);
  }

 protected:
  bool beginPart() override {
    for (;;) {
      if (!m_inStream && !beginStream()) return false;
      const auto first = m_input.peek();
      if (first.empty()) m_input.failAtEnd();
      if (first[0] != 0) break;
      endStream();
    }
    beginBlock();
    return true;
  }

  Step decodePart(std::uint8_t* buffer, std::size_t size) override {
    const auto bytes = m_input.peek();
    m_coder.next_in = bytes.data();
    m_coder.avail_in = bytes.size();
    m_coder.next_out = buffer;
    m_coder.avail_out = size;
    const lzma_ret result = ::lzma_code(&m_coder, LZMA_RUN);
    m_input.skip(bytes.size() - m_coder.avail_in);
    const std::size_t done = size - m_coder.avail_out;
    // What was decoded before the damage is good; the next call meets it again.
    if (result != LZMA_BUF_ERROR && done == 0) require(result, "a block is damaged");
    return {.size = done, .ended = result == LZMA_STREAM_END};
  }

  Restart restartBetweenParts() override {
    // Between two streams there is nothing that a block could refer to.
    if (!m_inStream) return {};
    return {.make =
                [file = m_input.file(), need = m_need, offset = m_input.offset(), flags = m_flags] {
                  return std::make_unique<XzDecoder>(file, need, offset, flags);
                },
            .bytes = 0};
  }

 private:
  void require(lzma_ret result, const char* what) {
    switch (result) {
      case LZMA_OK:
      case LZMA_STREAM_END:
        return;
      case LZMA_MEM_ERROR:
        throw std::bad_alloc();
      case LZMA_OPTIONS_ERROR:
        m_input.fail("it uses something that this version of liblzma does not know");
      default:
        m_input.fail(what);
    }
  }

  // The next `count` bytes, which the file has to have.
  const std::uint8_t* required(std::size_t count) {
    const auto bytes = m_input.peek(count);
    if (bytes.size() < count) m_input.failAtEnd();
    return bytes.data();
  }

  bool beginStream() {
    const auto bytes = m_input.peek(LZMA_STREAM_HEADER_SIZE);
    if (bytes.empty() || bytes[0] == 0) {
      if (m_input.onlyZerosFollow()) return false;
    }
    require(::lzma_stream_header_decode(&m_flags, required(LZMA_STREAM_HEADER_SIZE)),
            "what follows is not xz");
    m_input.skip(LZMA_STREAM_HEADER_SIZE);
    m_inStream = true;
    return true;
  }

  void beginBlock() {
    ::lzma_filters_free(m_filters.data(), nullptr);
    m_block = {};
    m_block.version = 1;
    m_block.check = m_flags.check;
    m_block.filters = m_filters.data();
    m_block.header_size = lzma_block_header_size_decode(*required(1));
    require(::lzma_block_header_decode(&m_block, nullptr, required(m_block.header_size)),
            "the header of a block is damaged");
    const std::uint64_t memory = ::lzma_raw_decoder_memusage(m_filters.data());
    if (memory == UINT64_MAX) m_input.fail("it uses a filter that is not known");
    m_need(memory + CompressedInput::kBufferBytes);
    m_input.skip(m_block.header_size);
    require(::lzma_block_decoder(&m_coder, &m_block), "the header of a block is damaged");
  }

  // Goes past the index, which has nothing that the blocks have not told, and the footer.
  void endStream() {
    std::uint32_t crc = 0;
    std::uint64_t passed = 0;
    const auto pass = [&](std::size_t count) {
      crc = ::lzma_crc32(required(count), count, crc);
      m_input.skip(count);
      passed += count;
    };
    const auto number = [&] {
      const auto bytes = m_input.peek(LZMA_VLI_BYTES_MAX);
      lzma_vli value = 0;
      std::size_t used = 0;
      require(::lzma_vli_decode(&value, nullptr, bytes.data(), &used, bytes.size()),
              "the index is damaged");
      pass(used);
      return value;
    };
    pass(1);
    // Each number takes a byte at least, so the file's end bounds this.
    for (lzma_vli left = number(); left > 0; --left) {
      number();
      number();
    }
    while (passed % 4 != 0) pass(1);
    const std::uint8_t* const stored = required(4);
    for (unsigned i = 0; i < 4; ++i) {
      if (stored[i] != ((crc >> (8 * i)) & 0xff)) m_input.fail("the index is damaged");
    }
    m_input.skip(4);

    lzma_stream_flags footer{};
    require(::lzma_stream_footer_decode(&footer, required(LZMA_STREAM_HEADER_SIZE)),
            "the end of a stream is damaged");
    require(::lzma_stream_flags_compare(&m_flags, &footer), "the end of a stream is damaged");
    m_input.skip(LZMA_STREAM_HEADER_SIZE);
    m_inStream = false;
  }

  bool m_inStream = false;
  lzma_stream_flags m_flags{};
  lzma_stream m_coder = LZMA_STREAM_INIT;
  lzma_block m_block{};  // the coder refers to it, and it to the filters
  std::array<lzma_filter, LZMA_FILTERS_MAX + 1> m_filters{
      lzma_filter{.id = LZMA_VLI_UNKNOWN, .options = nullptr}};
};

}  // namespace

std::unique_ptr<StreamDecoder> makeXzDecoder(std::shared_ptr<FileBytes> file, NeedMemory need) {
  return std::make_unique<XzDecoder>(std::move(file), std::move(need));
}

}  // namespace nfslib::hosts::archive
