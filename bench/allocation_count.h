#pragma once

#include <cstdint>

#include <benchmark/benchmark.h>

namespace nfslib::bench {

// Calls of operator new in this process so far.
std::uint64_t allocations();

// Adds the column "allocs", allocations an iteration from here to the end of the scope.
class CountAllocations {
 public:
  explicit CountAllocations(benchmark::State& state) : m_state(state), m_before(allocations()) {}
  ~CountAllocations() {
    m_state.counters["allocs"] = benchmark::Counter(static_cast<double>(allocations() - m_before),
                                                    benchmark::Counter::kAvgIterations);
  }
  CountAllocations(const CountAllocations&) = delete;
  CountAllocations& operator=(const CountAllocations&) = delete;

 private:
  benchmark::State& m_state;
  const std::uint64_t m_before;
};

}  // namespace nfslib::bench
