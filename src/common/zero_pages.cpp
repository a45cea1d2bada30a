#include "common/zero_pages.h"

#include <new>
#include <utility>

#include <sys/mman.h>

namespace nfslib::memory {

ZeroPages::ZeroPages(std::size_t size) : m_size(size) {
  void* area = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) throw std::bad_alloc();
  m_data = static_cast<std::byte*>(area);
#ifdef MADV_NOHUGEPAGE
  // One touched byte must not make a whole huge page resident.
  madvise(area, size, MADV_NOHUGEPAGE);
#endif
}

ZeroPages::~ZeroPages() {
  if (m_data != nullptr) munmap(m_data, m_size);
}

ZeroPages::ZeroPages(ZeroPages&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)), m_size(std::exchange(other.m_size, 0)) {}

ZeroPages& ZeroPages::operator=(ZeroPages&& other) noexcept {
  std::swap(m_data, other.m_data);
  std::swap(m_size, other.m_size);
  return *this;
}

}  // namespace nfslib::memory
