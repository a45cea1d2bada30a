#pragma once

#include "common/buffers.h"
#include "common/zero_pages.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nfslib {

class IDescriptorFile;

// Bytes of a reply that are sent from a file: they keep their place in the output area, which the
// transport fills, or passes over.
struct OutputFromFile {
  std::shared_ptr<IDescriptorFile> file;
  std::uint64_t offset = 0;  // in the file
  unsigned position = 0;     // in the output
  unsigned length = 0;
};

enum class SeekOrigin { Begin = 0, End = 1, Current = 2 };

// Encoder and decoder of External Data Representation (RFC 4506) over two fixed areas: the request
// in the input area, the reply in the output area.
//
// Decoding never reads past the input. A short integer, or a length or count beyond what is left,
// marks the stream failed for good; nothing of the body is taken then, and the output side goes on
// working, so that the caller can still reply. Whoever owns the stream takes a new one for the next
// request.
//
// A stream is built once for many requests; its areas are zero pages of the system, resident only
// where they were used. One thread at a time.
class MemoryStream {
 public:
  static constexpr unsigned getBufferSize() { return kAreaSize; }

  MemoryStream();

  // ---- Input

  // Takes a copy of the request, at most getBufferSize() bytes, and rewinds.
  void setInputData(memory::const_buffer data);
  // For a transport that receives straight into the input area: fill its front, then say how much.
  memory::mutable_buffer inputArea() { return {m_areas.data(), kAreaSize}; }
  void setInputSize(unsigned size);

  // The whole request, decoded or not.
  memory::const_buffer getInputBuffer() const { return {input(), m_inputSize}; }
  // Bytes not yet decoded.
  unsigned getInputDataSize() const { return m_inputSize - m_inputPosition; }
  // The same bytes, which stay to be decoded.
  memory::const_buffer inputLeft() const { return {input() + m_inputPosition, getInputDataSize()}; }
  // Bytes of the whole request.
  unsigned inputSize() const { return m_inputSize; }
  // Takes up to n bytes and returns how many there were. Never marks the stream failed.
  unsigned read(void* dst, unsigned n);
  // The same without a copy: a view of the bytes, valid until the next input.
  memory::const_buffer readView(unsigned n);
  unsigned skipInput(unsigned n);
  // Skips what pads an opaque of `length` bytes to a multiple of four.
  void skipOpaqueTail(unsigned length) { skipInput(padding(length)); }
  // Decodes a counted opaque without a copy: a view as from readView. A length beyond what is left
  // marks the stream failed and gives nothing.
  memory::const_buffer readOpaque();
  // Decodes a counted string into `dst` and returns its length. One that the input or `dst` does
  // not hold marks the stream failed and copies nothing.
  unsigned readString(memory::mutable_buffer dst);
  // Decodes a word count of elements that take at least `elementSize` bytes each on the wire. A
  // count that the rest of the input cannot hold marks the stream failed and is returned as 0.
  unsigned readCount(unsigned elementSize);

  MemoryStream& operator>>(unsigned int& value) { return readInteger(value); }
  MemoryStream& operator>>(unsigned long& value) { return readInteger(value); }
  MemoryStream& operator>>(long& value) { return readInteger(value); }
  MemoryStream& operator>>(bool& value);
  MemoryStream& operator>>(std::string& value);
  MemoryStream& operator>>(std::vector<std::byte>& value);
  MemoryStream& operator>>(std::vector<unsigned int>& value);

  // ---- Output

  // Writes at the output position. What passes the end of the area is cut off without an error:
  // callers that must not overrun look at outputSpace() first.
  void write(const void* src, unsigned n);
  // Makes room for `n` zeroed bytes at the output position, moves behind them and returns them, cut
  // to the end of the area. For bodies that are produced in place.
  memory::mutable_buffer writeZeros(unsigned n);
  void writeOpaqueTail(unsigned length);
  // The same room, filled by the transport from a file. Only where the transport takes files, and
  // one a reply: see takesFile.
  void writeFromFile(std::shared_ptr<IDescriptorFile> file, std::uint64_t offset, unsigned length);
  bool takesFile() const { return m_filesAllowed && !m_file; }
  void allowFiles(bool allowed) { m_filesAllowed = allowed; }
  std::optional<OutputFromFile>& fileInOutput() { return m_file; }

  MemoryStream& operator<<(const unsigned int& value) { return writeInteger(value); }
  MemoryStream& operator<<(const unsigned long& value) { return writeInteger(value); }
  MemoryStream& operator<<(const bool& value) { return writeInteger(value ? 1U : 0U); }
  MemoryStream& operator<<(const memory::const_buffer& value);
  MemoryStream& operator<<(const std::vector<std::byte>& value);
  MemoryStream& operator<<(const std::string& value);
  MemoryStream& operator<<(const std::string_view& value);
  MemoryStream& operator<<(const char*) = delete;  // would be taken for a bool
  MemoryStream& operator<<(const std::vector<unsigned int>& value);
  // Appends the other stream's whole output as it is, with no length.
  MemoryStream& operator<<(const MemoryStream& other);

  memory::mutable_buffer outputArea() { return {output(), m_outputSize}; }
  memory::const_buffer getOutputBuffer() const { return {output(), m_outputSize}; }
  unsigned getOutputDataSize() const { return m_outputSize; }
  unsigned getOutputPosition() const { return m_outputPosition; }
  // Moves the output position; the size stays. `Current` wraps, so 0xFFFFFFFC moves back four
  // bytes.
  void seekOutput(unsigned offset, SeekOrigin origin);
  // Cuts the output at the position.
  void truncateOutput();
  void clearOutput() {
    m_outputPosition = m_outputSize = 0;
    m_file.reset();
  }

  // The longest reply that the transport can carry; the whole area unless limited (a datagram is
  // shorter). Not enforced here: procedures shape their replies by outputSpace().
  void limitOutput(unsigned limit) { m_outputLimit = std::min(limit, kAreaSize); }
  unsigned outputLimit() const { return m_outputLimit; }
  // Bytes that the transport can still carry behind the output position.
  unsigned outputSpace() const { return m_outputLimit - std::min(m_outputLimit, m_outputPosition); }

  // ---- Both

  void errorOccurred() { m_good = false; }
  explicit operator bool() const { return m_good; }
  // Sequence number of the stream in this process.
  std::uint64_t getId() const { return m_id; }

  // Copies `n` bytes between host order and network order.
  static void copyBytesWithCorrectOrder(const std::byte* src, std::byte* dst, unsigned n);

 private:
  static constexpr unsigned kAreaSize = 1'048'576;
  static constexpr unsigned padding(unsigned length) { return (4 - length % 4) % 4; }

  // Moves behind up to `n` bytes of output, which stay as they are.
  memory::mutable_buffer makeRoom(unsigned n);

  std::byte* input() const { return m_areas.data(); }
  std::byte* output() const { return m_areas.data() + kAreaSize; }

  template <class Integer>
  MemoryStream& readInteger(Integer& value) {
    std::byte wire[sizeof(Integer)] = {};
    if (getInputDataSize() < sizeof wire) {
      m_inputPosition = m_inputSize;
      value = 0;
      m_good = false;
      return *this;
    }
    std::memcpy(wire, input() + m_inputPosition, sizeof wire);
    m_inputPosition += static_cast<unsigned>(sizeof wire);
    copyBytesWithCorrectOrder(wire, reinterpret_cast<std::byte*>(&value), sizeof wire);
    return *this;
  }
  template <class Integer>
  MemoryStream& writeInteger(Integer value) {
    std::byte wire[sizeof(Integer)];
    copyBytesWithCorrectOrder(reinterpret_cast<const std::byte*>(&value), wire, sizeof wire);
    write(wire, sizeof wire);
    return *this;
  }

  bool m_good = true;
  memory::ZeroPages m_areas;  // the input area, then the output area
  unsigned m_inputPosition = 0;
  unsigned m_inputSize = 0;
  unsigned m_outputPosition = 0;
  unsigned m_outputSize = 0;
  unsigned m_outputLimit = kAreaSize;
  bool m_filesAllowed = false;
  std::optional<OutputFromFile> m_file;
  std::uint64_t m_id;
};

inline void MemoryStream::copyBytesWithCorrectOrder(const std::byte* src, std::byte* dst,
                                                    unsigned n) {
  if constexpr (std::endian::native == std::endian::little) {
    std::reverse_copy(src, src + n, dst);
  } else {
    std::memcpy(dst, src, n);
  }
}

inline void MemoryStream::write(const void* src, unsigned n) {
  n = std::min(n, kAreaSize - m_outputPosition);
  if (n == 0) return;
  std::memcpy(output() + m_outputPosition, src, n);
  m_outputPosition += n;
  m_outputSize = std::max(m_outputSize, m_outputPosition);
}

}  // namespace nfslib
