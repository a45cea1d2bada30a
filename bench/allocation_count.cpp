#include "allocation_count.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::uint64_t> count{0};

}  // namespace

// The forms for arrays and without exceptions end in this one.
void* operator new(std::size_t size) {
  count.fetch_add(1, std::memory_order_relaxed);
  if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace nfslib::bench {

std::uint64_t allocations() { return count.load(std::memory_order_relaxed); }

}  // namespace nfslib::bench
