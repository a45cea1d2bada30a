#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string_view>

// XDR and ONC RPC by hand, for the programs that measure from outside. They share no code with the
// library, so a mistake or a shortcut in its encoder cannot hide on both sides.
namespace bench {

constexpr std::uint32_t kLastFragment = 0x80000000;
constexpr std::uint32_t kNfsProgram = 100003;
constexpr std::uint32_t kMountProgram = 100005;
constexpr std::uint32_t kAuthSys = 1;
constexpr std::size_t kMarkSize = 4;
constexpr std::size_t kAttributesSize = 84;  // fattr3
constexpr std::size_t kSizeInAttributes = 20;
// The attributes that a Linux client asks for, as far as this library has them: type, change, size,
// fsid, fileid; mode, numlinks, owner, owner_group, the three times, mounted_on_fileid.
constexpr std::uint32_t kAttributes4[2] = {0x0010'011A, 0x00B0'803A};
constexpr std::size_t kAttributes4Size = 112;  // with owners of one digit
constexpr std::size_t kSizeInAttributes4 = 12;
constexpr std::size_t kSessionIdSize = 16;
constexpr std::size_t kStateIdSize = 16;
constexpr std::size_t kSequenceResultSize = kSessionIdSize + 20;
constexpr std::size_t kMaxTransfer = 1 << 20;  // of one READ or WRITE
constexpr std::size_t kMaxHeaders = 4096;      // of any call or reply around its data

enum class Procedure : std::uint32_t {
  Null = 0,
  GetAttr = 1,
  Lookup = 3,
  Read = 6,
  Write = 7,
  ReadDirPlus = 17,
};
constexpr auto kMountMnt = static_cast<Procedure>(1);
constexpr auto kCompound = static_cast<Procedure>(1);

// Of version 4.
enum class Operation : std::uint32_t {
  Close = 4,
  GetAttr = 9,
  GetFh = 10,
  Lookup = 15,
  Open = 18,
  PutFh = 22,
  PutRootFh = 24,
  Read = 25,
  ReadDir = 26,
  ExchangeId = 42,
  CreateSession = 43,
  DestroySession = 44,
  Sequence = 53,
  DestroyClientId = 57,
  ReclaimComplete = 58,
};

constexpr std::size_t padded(std::size_t size) { return (size + 3) / 4 * 4; }

template <class Integer>
Integer fromWire(const std::byte* bytes) {
  Integer value = 0;
  std::memcpy(&value, bytes, sizeof value);
  if constexpr (std::endian::native == std::endian::big) return value;
  if constexpr (sizeof value == 8) return __builtin_bswap64(value);
  return static_cast<Integer>(__builtin_bswap32(static_cast<std::uint32_t>(value)));
}

template <class Integer>
void toWire(Integer value, std::byte* bytes) {
  value = fromWire<Integer>(reinterpret_cast<const std::byte*>(&value));
  std::memcpy(bytes, &value, sizeof value);
}

// Writes into a buffer that it does not own; throws when that is full.
class Encoder {
 public:
  explicit Encoder(std::span<std::byte> buffer) : m_buffer(buffer) {}

  Encoder& word(std::uint32_t value) { return toWire(value, space(sizeof value)), *this; }
  Encoder& hyper(std::uint64_t value) { return toWire(value, space(sizeof value)), *this; }
  Encoder& zeros(std::size_t size) { return std::memset(space(size), 0, size), *this; }
  Encoder& bytes(std::span<const std::byte> data) {
    return std::memcpy(space(data.size()), data.data(), data.size()), *this;
  }
  Encoder& opaque(std::string_view data) {
    word(static_cast<std::uint32_t>(data.size()));
    bytes(std::as_bytes(std::span(data)));
    return zeros(padded(data.size()) - data.size());
  }
  // Leaves room for `size` bytes that the caller fills.
  std::byte* space(std::size_t size) {
    if (size > m_buffer.size() - m_size)
      throw std::length_error("message is longer than its buffer");
    m_size += size;
    return m_buffer.data() + m_size - size;
  }
  // A record mark is written when the size of its record is known.
  std::size_t beginRecord() { return word(0), m_size; }
  void endRecord(std::size_t start) {
    toWire(kLastFragment | static_cast<std::uint32_t>(m_size - start),
           m_buffer.data() + start - kMarkSize);
  }
  std::span<const std::byte> written() const { return m_buffer.first(m_size); }
  std::size_t size() const { return m_size; }
  void clear() { m_size = 0; }

 private:
  std::span<std::byte> m_buffer;
  std::size_t m_size = 0;
};

// Reads a message; throws when it is too short.
class Decoder {
 public:
  explicit Decoder(std::span<const std::byte> message) : m_rest(message) {}

  std::uint32_t word() { return fromWire<std::uint32_t>(take(4).data()); }
  std::uint64_t hyper() { return fromWire<std::uint64_t>(take(8).data()); }
  std::span<const std::byte> take(std::size_t size) {
    if (size > m_rest.size()) throw std::runtime_error("message is shorter than its contents");
    const auto taken = m_rest.first(size);
    m_rest = m_rest.subspan(size);
    return taken;
  }
  std::span<const std::byte> opaque() {
    const std::size_t size = word();
    return take(padded(size)).first(size);
  }
  std::size_t left() const { return m_rest.size(); }

 private:
  std::span<const std::byte> m_rest;
};

}  // namespace bench
