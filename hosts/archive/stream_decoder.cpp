#include "archive/stream_decoder.h"

namespace nfslib::hosts::archive {

std::size_t StreamDecoder::read(void* buffer, std::size_t size) {
  if (size == 0) return 0;
  for (;;) {
    if (!m_inPart && !beginPart()) return 0;
    m_inPart = true;
    const std::uint64_t before = m_input.offset();
    const Step step = decodePart(static_cast<std::uint8_t*>(buffer), size);
    m_inPart = !step.ended;
    if (step.size > 0) return step.size;
    if (m_inPart && m_input.offset() == before) m_input.failAtEnd();
  }
}

Decoder::Restart StreamDecoder::restart() {
  // A part may have given all its bytes without having noticed its end.
  std::uint8_t none = 0;
  if (m_inPart) m_inPart = !decodePart(&none, 0).ended;
  return m_inPart ? Restart{} : restartBetweenParts();
}

}  // namespace nfslib::hosts::archive
