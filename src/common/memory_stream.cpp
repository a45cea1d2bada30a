#include "common/memory_stream.h"

#include <nfslib/file_system.h>

#include <atomic>
#include <utility>

namespace nfslib {

namespace {
std::atomic<std::uint64_t> nextStreamId{0};
}

MemoryStream::MemoryStream() : m_areas(2UL * kAreaSize), m_id(nextStreamId++) {}

void MemoryStream::setInputData(memory::const_buffer data) {
  setInputSize(static_cast<unsigned>(memory::copy(data, inputArea())));
}

void MemoryStream::setInputSize(unsigned size) {
  m_inputPosition = 0;
  m_inputSize = std::min(size, kAreaSize);
}

unsigned MemoryStream::read(void* dst, unsigned n) {
  const memory::const_buffer bytes = readView(n);
  if (bytes) std::memcpy(dst, bytes.data(), bytes.size());
  return static_cast<unsigned>(bytes.size());
}

memory::const_buffer MemoryStream::readView(unsigned n) {
  const std::byte* start = input() + m_inputPosition;
  return {start, skipInput(n)};
}

unsigned MemoryStream::skipInput(unsigned n) {
  n = std::min(n, getInputDataSize());
  m_inputPosition += n;
  return n;
}

unsigned MemoryStream::readString(memory::mutable_buffer dst) {
  const unsigned length = readCount(1);
  if (length > dst.size()) {
    errorOccurred();
    return 0;
  }
  read(dst.data(), length);
  skipOpaqueTail(length);
  return length;
}

unsigned MemoryStream::readCount(unsigned elementSize) {
  unsigned count = 0;
  *this >> count;
  if (count <= getInputDataSize() / elementSize) return count;
  errorOccurred();
  return 0;
}

MemoryStream& MemoryStream::operator>>(bool& value) {
  unsigned word = 0;
  *this >> word;
  value = word == 1;
  return *this;
}

memory::const_buffer MemoryStream::readOpaque() {
  const unsigned length = readCount(1);
  const memory::const_buffer bytes = readView(length);
  skipOpaqueTail(length);
  return bytes;
}

MemoryStream& MemoryStream::operator>>(std::string& value) {
  const memory::const_buffer bytes = readOpaque();
  value.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return *this;
}

MemoryStream& MemoryStream::operator>>(std::vector<std::byte>& value) {
  const memory::const_buffer bytes = readOpaque();
  value.assign(bytes.begin(), bytes.end());
  return *this;
}

MemoryStream& MemoryStream::operator>>(std::vector<unsigned int>& value) {
  value.assign(readCount(sizeof(unsigned int)), 0);
  for (unsigned int& word : value) *this >> word;
  return *this;
}

memory::mutable_buffer MemoryStream::makeRoom(unsigned n) {
  n = std::min(n, kAreaSize - m_outputPosition);
  const memory::mutable_buffer room(output() + m_outputPosition, n);
  m_outputPosition += n;
  m_outputSize = std::max(m_outputSize, m_outputPosition);
  return room;
}

memory::mutable_buffer MemoryStream::writeZeros(unsigned n) {
  const memory::mutable_buffer room = makeRoom(n);
  memory::zero(room);
  return room;
}

void MemoryStream::writeFromFile(std::shared_ptr<IDescriptorFile> file, std::uint64_t offset,
                                 unsigned length) {
  const unsigned position = m_outputPosition;
  const auto room = static_cast<unsigned>(makeRoom(length).size());
  m_file = {std::move(file), offset, position, room};
}

void MemoryStream::truncateOutput() {
  m_outputSize = std::min(m_outputSize, m_outputPosition);
  if (m_file && m_file->position + m_file->length > m_outputSize) m_file.reset();
}

void MemoryStream::writeOpaqueTail(unsigned length) { writeZeros(padding(length)); }

MemoryStream& MemoryStream::operator<<(const memory::const_buffer& value) {
  const auto length = static_cast<unsigned>(value.size());
  *this << length;
  write(value.data(), length);
  writeOpaqueTail(length);
  return *this;
}

MemoryStream& MemoryStream::operator<<(const std::vector<std::byte>& value) {
  return *this << memory::const_buffer(value.data(), value.size());
}

MemoryStream& MemoryStream::operator<<(const std::string& value) {
  return *this << memory::const_buffer(value.data(), value.size());
}

MemoryStream& MemoryStream::operator<<(const std::string_view& value) {
  return *this << memory::const_buffer(value.data(), value.size());
}

MemoryStream& MemoryStream::operator<<(const std::vector<unsigned int>& value) {
  *this << static_cast<unsigned>(value.size());
  for (const unsigned int& word : value) *this << word;
  return *this;
}

MemoryStream& MemoryStream::operator<<(const MemoryStream& other) {
  const memory::const_buffer bytes = other.getOutputBuffer();
  write(bytes.data(), static_cast<unsigned>(bytes.size()));
  return *this;
}

void MemoryStream::seekOutput(unsigned offset, SeekOrigin origin) {
  switch (origin) {
    case SeekOrigin::Begin:
      m_outputPosition = offset;
      break;
    case SeekOrigin::End:
      m_outputPosition = m_outputSize + offset;
      break;
    case SeekOrigin::Current:
      m_outputPosition += offset;
      break;
  }
  // A position outside the area would let a later write leave it.
  m_outputPosition = std::min(m_outputPosition, kAreaSize);
}

}  // namespace nfslib
