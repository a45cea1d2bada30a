#include "archive/deflated_member.h"

#include "archive/decoded_source.h"
#include "archive/inflater.h"

#include <algorithm>
#include <utility>

namespace nfslib::hosts::archive {

namespace {

class DeflatedMember : public Decoder {
 public:
  // `left` bytes are still to come.
  DeflatedMember(CompressedInput input, std::uint64_t left, const Inflater& inflater)
      : m_input(std::move(input)), m_left(left), m_inflater(inflater) {}

  std::size_t read(void* buffer, std::size_t size) override {
    size = std::min<std::uint64_t>(size, m_left);
    while (size > 0) {
      const std::uint64_t before = m_input.offset();
      const auto [done, ended] =
          m_inflater.inflate(m_input, static_cast<std::uint8_t*>(buffer), size);
      m_left -= done;
      if (done > 0) return done;
      if (ended) m_input.fail("the member has fewer bytes than the archive says");
      if (m_input.offset() == before) m_input.failAtEnd();
    }
    return 0;
  }

  Restart restart() override {
    auto make = [file = m_input.file(), offset = m_input.offset(), left = m_left,
                 copy = std::make_shared<const Inflater>(m_inflater)] {
      return std::make_unique<DeflatedMember>(CompressedInput(file, offset), left, *copy);
    };
    return {.make = std::move(make), .bytes = Inflater::kStateBytes};
  }

 private:
  CompressedInput m_input;
  std::uint64_t m_left;
  Inflater m_inflater;
};

}  // namespace

std::shared_ptr<ByteSource> makeDeflatedMember(std::shared_ptr<FileBytes> file,
                                               std::shared_ptr<BlockCache> cache,
                                               std::uint64_t offset, std::uint64_t size) {
  auto fromStart = [file = std::move(file), offset, size] {
    return std::make_unique<DeflatedMember>(CompressedInput(file, offset), size,
                                            Inflater(-MAX_WBITS));
  };
  return makeDecodedSource(std::move(cache), std::move(fromStart), Inflater::kDecoderBytes);
}

}  // namespace nfslib::hosts::archive
