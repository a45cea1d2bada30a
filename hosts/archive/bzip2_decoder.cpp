// bzip2: streams of blocks that begin at any bit. The library decodes whole streams only, so each
// block is handed to it as a stream of its own; that way decoding can begin at every block.

#include "archive/stream_decoder.h"

#include <array>
#include <bit>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include <bzlib.h>

namespace nfslib::hosts::archive {

namespace {

constexpr std::uint64_t kBlockMark = 0x314159265359;
constexpr std::uint64_t kEndMark = 0x177245385090;
constexpr unsigned kMarkBits = 48;
constexpr unsigned kChecksumBits = 32;

// Bits of a block look like a mark by chance once in some 17 TB. Who puts many into one block
// wants us to decode it again and again.
constexpr unsigned kMostMarks = 16;

// What the library holds for a block of 900 kB.
constexpr std::uint64_t kLibraryBytes = 3'700'000;

// Bits, the highest of a byte first, put together to bytes.
class BitWriter {
 public:
  void put(std::uint64_t value, unsigned count) {
    while (count-- > 0) {
      m_bytes[m_bits / 8] |= static_cast<char>(((value >> count) & 1) << (7 - m_bits % 8));
      ++m_bits;
    }
  }
  char* data() { return m_bytes.data(); }
  std::size_t size() const { return (m_bits + 7) / 8; }

 private:
  std::array<char, 16> m_bytes{};
  unsigned m_bits = 0;
};

// One stream in the library.
class Library {
 public:
  Library() { begin(); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() { ::BZ2_bzDecompressEnd(&m_stream); }

  void restart() {
    ::BZ2_bzDecompressEnd(&m_stream);
    begin();
  }

  // Gives it `in` and puts what comes into `buffer`. BZ_OK, BZ_STREAM_END or an error.
  int decode(std::span<char>& in, std::span<std::uint8_t>& buffer) {
    m_stream.next_in = in.data();
    m_stream.avail_in = static_cast<unsigned>(in.size());
    m_stream.next_out = std::bit_cast<char*>(buffer.data());
    m_stream.avail_out = static_cast<unsigned>(buffer.size());
    const int result = ::BZ2_bzDecompress(&m_stream);
    in = in.last(m_stream.avail_in);
    buffer = buffer.last(m_stream.avail_out);
    if (result == BZ_MEM_ERROR) throw std::bad_alloc();
    return result;
  }

 private:
  void begin() {
    m_stream = {};
    if (::BZ2_bzDecompressInit(&m_stream, 0, 0) != BZ_OK) throw std::bad_alloc();
  }

  bz_stream m_stream{};
};

class Bzip2Decoder : public StreamDecoder {
 public:
  // Where a decoder stands between two blocks.
  struct Place {
    std::uint64_t bit = 0;       // of the file
    unsigned level = 0;          // in units of 100 kB; 0 where a stream begins
    std::uint32_t checksum = 0;  // of the stream so far
  };

  Bzip2Decoder(std::shared_ptr<FileBytes> file, NeedMemory need, const Place& place)
      : StreamDecoder(std::move(file), place.bit / 8, std::move(need)), m_place(place) {}

 protected:
  bool beginPart() override {
    for (;;) {
      if (m_place.level == 0 && !beginStream()) return false;
      m_input.seek(m_place.bit / 8);
      const std::uint64_t mark = takeBits(kMarkBits);
      if (mark == kBlockMark) break;
      const auto checksum = static_cast<std::uint32_t>(takeBits(kChecksumBits));
      if (mark != kEndMark || checksum != m_place.checksum) {
        m_input.fail("the end of a stream is damaged");
      }
      m_place.bit = (m_place.bit + 7) / 8 * 8;
      m_place.level = 0;
    }
    m_blockChecksum = static_cast<std::uint32_t>(takeBits(kChecksumBits));
    m_shift = static_cast<unsigned>(m_place.bit % 8);
    m_input.seek(m_place.bit / 8);
    m_block.clear();
    m_block.reserve(mostBlockBytes() + CompressedInput::kBufferBytes);
    m_last = 0;
    m_hasYielded = false;
    m_marks = 0;
    if (!findEnd()) m_input.fail("a block has no end");
    return true;
  }

  Step decodePart(std::uint8_t* buffer, std::size_t size) override {
    std::span<std::uint8_t> out(buffer, std::min<std::size_t>(size, 1U << 30));
    for (;;) {
      int result = BZ_OK;
      for (auto& piece : m_pieces) {
        // An empty piece behind those with input: the library goes on with what it has.
        if (piece.empty() && &piece != &m_pieces.back()) continue;
        result = m_library.decode(piece, out);
        if (result != BZ_OK || !piece.empty()) break;
      }
      const std::size_t done = size - out.size();
      m_hasYielded = m_hasYielded || done > 0;
      if (result == BZ_STREAM_END) {
        finishBlock();
        return {.size = done, .ended = true};
      }
      if (result == BZ_OK && (done > 0 || size == 0)) return {.size = done};
      // What looked like the mark behind the block may have been a part of it. Not so when it gave
      // something: then it is its checksum that is wrong.
      if (m_hasYielded || m_marks == kMostMarks || !findEnd()) m_input.fail("a block is damaged");
    }
  }

  Restart restartBetweenParts() override {
    return {.make = [file = m_input.file(), need = m_need,
                     place = m_place] { return std::make_unique<Bzip2Decoder>(file, need, place); },
            .bytes = 0};
  }

 private:
  // As many as a block of this level can take, with 20 bits for each of its bytes.
  std::size_t mostBlockBytes() const { return std::size_t{m_place.level} * 250'000 + 64 * 1024; }

  bool beginStream() {
    m_input.seek(m_place.bit / 8);
    const auto header = m_input.peek(4);
    if (header.size() < 4 || std::memcmp(header.data(), "BZh", 3) != 0 || header[3] < '1' ||
        header[3] > '9') {
      if (m_input.onlyZerosFollow()) return false;
      m_input.fail("what follows is not bzip2");
    }
    m_place.level = header[3] - unsigned{'0'};
    m_place.checksum = 0;
    m_place.bit += 32;
    m_need(kLibraryBytes + mostBlockBytes() + 2 * CompressedInput::kBufferBytes);
    return true;
  }

  // The next `count` bits, up to 48.
  std::uint64_t takeBits(unsigned count) {
    m_input.seek(m_place.bit / 8);
    const unsigned shift = m_place.bit % 8;
    const std::size_t bytes = (shift + count + 7) / 8;
    const auto input = m_input.peek(bytes);
    if (input.size() < bytes) m_input.failAtEnd();
    std::uint64_t value = 0;
    for (const std::uint8_t byte : input.first(bytes)) value = value << 8 | byte;
    m_place.bit += count;
    return (value >> (bytes * 8 - shift - count)) & ((std::uint64_t{1} << count) - 1);
  }

  // Reads on up to the next mark and gets the library ready for the block that ends there, which
  // began with the bits at m_place. False when no block is that long, or the file ends.
  bool findEnd() {
    for (;;) {
      if (m_block.size() > mostBlockBytes()) return false;
      // The bits of a byte of the block come from two of the file.
      const auto input = m_input.peek(2);
      if (input.size() < 2 && m_shift > 0) return false;
      if (input.empty()) return false;
      std::size_t used = 0;
      const std::size_t whole = m_shift == 0 ? input.size() : input.size() - 1;
      while (used < whole) {
        const unsigned pair = unsigned{input[used]} << 8 | (m_shift == 0 ? 0U : input[used + 1]);
        ++used;
        const auto byte = static_cast<std::uint8_t>(pair >> (8 - m_shift));
        m_block.push_back(static_cast<char>(byte));
        m_last = m_last << 8 | byte;
        for (unsigned behind = 0; behind < 8; ++behind) {
          const std::uint64_t bits = (m_last >> behind) & ((std::uint64_t{1} << kMarkBits) - 1);
          if (bits != kBlockMark && bits != kEndMark) continue;
          // The first bits of the block itself are no mark.
          if (m_block.size() * 8 < behind + kMarkBits) continue;
          m_input.skip(used);
          ++m_marks;
          handOver(m_block.size() * 8 - behind - kMarkBits);
          return true;
        }
      }
      m_input.skip(used);
    }
  }

  // Makes a stream of the first `bits` of the block.
  void handOver(std::size_t bits) {
    m_bits = bits;
    m_head = {};
    for (const char c : {'B', 'Z', 'h'}) m_head.put(static_cast<std::uint8_t>(c), 8);
    m_head.put('0' + m_place.level, 8);
    m_head.put(kBlockMark, kMarkBits);
    m_head.put(m_blockChecksum, kChecksumBits);
    m_tail = {};
    const auto rest = static_cast<unsigned>(bits % 8);
    if (rest > 0) m_tail.put(static_cast<std::uint8_t>(m_block[bits / 8]) >> (8 - rest), rest);
    m_tail.put(kEndMark, kMarkBits);
    m_tail.put(m_blockChecksum, kChecksumBits);
    m_pieces = {std::span(m_head.data(), m_head.size()), std::span(m_block).first(bits / 8),
                std::span(m_tail.data(), m_tail.size())};
    m_library.restart();
  }

  void finishBlock() {
    m_place.bit += m_bits;
    m_place.checksum = std::rotl(m_place.checksum, 1) ^ m_blockChecksum;
  }

  Library m_library;
  Place m_place;  // behind the mark and the checksum of the block that is being decoded
  std::uint32_t m_blockChecksum = 0;
  bool m_hasYielded = false;
  unsigned m_marks = 0;       // that were found in the block, or behind it
  unsigned m_shift = 0;       // where the block's first bit stands in its byte of the file
  std::vector<char> m_block;  // from that bit on
  std::uint64_t m_last = 0;   // its last 64 bits
  std::size_t m_bits = 0;     // up to the mark behind it
  BitWriter m_head, m_tail;
  std::array<std::span<char>, 3> m_pieces;  // what the library has not got yet
};

}  // namespace

std::unique_ptr<StreamDecoder> makeBzip2Decoder(std::shared_ptr<FileBytes> file, NeedMemory need) {
  return std::make_unique<Bzip2Decoder>(std::move(file), std::move(need), Bzip2Decoder::Place{});
}

}  // namespace nfslib::hosts::archive
