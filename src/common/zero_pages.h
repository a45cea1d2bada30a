#pragma once

#include <cstddef>

namespace nfslib::memory {

// Zeroed memory that costs nothing until it is touched: whole pages from the system, given back at
// once when the owner goes. Throws std::bad_alloc when the system has none.
class ZeroPages {
 public:
  explicit ZeroPages(std::size_t size);
  ~ZeroPages();
  ZeroPages(ZeroPages&& other) noexcept;
  ZeroPages& operator=(ZeroPages&& other) noexcept;
  ZeroPages(const ZeroPages&) = delete;
  ZeroPages& operator=(const ZeroPages&) = delete;

  std::byte* data() const { return m_data; }

 private:
  std::byte* m_data = nullptr;
  std::size_t m_size = 0;
};

}  // namespace nfslib::memory
