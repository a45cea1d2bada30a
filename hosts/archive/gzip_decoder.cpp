// gzip (RFC 1952): members one after the other.

#include "archive/inflater.h"
#include "archive/stream_decoder.h"

namespace nfslib::hosts::archive {

namespace {

constexpr int kGzipWithLargestWindow = 16 + MAX_WBITS;

class GzipDecoder : public StreamDecoder {
 public:
  GzipDecoder(std::shared_ptr<FileBytes> file, NeedMemory need)
      : StreamDecoder(std::move(file), 0, std::move(need)), m_inflater(kGzipWithLargestWindow) {
    m_need(Inflater::kDecoderBytes);
  }
  GzipDecoder(std::shared_ptr<FileBytes> file, NeedMemory need, std::uint64_t offset, bool inPart,
              const Inflater& inflater)
      : StreamDecoder(std::move(file), offset, std::move(need)), m_inflater(inflater) {
    m_inPart = inPart;
  }

  // zlib's state can be copied anywhere, so members that are long have points inside.
  Restart restart() override {
    auto make = [file = m_input.file(), need = m_need, offset = m_input.offset(), inPart = m_inPart,
                 copy = std::make_shared<const Inflater>(m_inflater)] {
      return std::make_unique<GzipDecoder>(file, need, offset, inPart, *copy);
    };
    return {.make = std::move(make), .bytes = Inflater::kStateBytes};
  }

 protected:
  bool beginPart() override {
    const auto bytes = m_input.peek(2);
    if (bytes.size() >= 2 && bytes[0] == 0x1f && bytes[1] == 0x8b) {
      m_inflater.reset();
      return true;
    }
    if (m_input.onlyZerosFollow()) return false;
    m_input.fail("what follows is not gzip");
  }

  Step decodePart(std::uint8_t* buffer, std::size_t size) override {
    const auto [done, ended] = m_inflater.inflate(m_input, buffer, size);
    return {.size = done, .ended = ended};
  }

  Restart restartBetweenParts() override { return restart(); }

 private:
  Inflater m_inflater;
};

}  // namespace

std::unique_ptr<StreamDecoder> makeGzipDecoder(std::shared_ptr<FileBytes> file, NeedMemory need) {
  return std::make_unique<GzipDecoder>(std::move(file), std::move(need));
}

}  // namespace nfslib::hosts::archive
