// What counting adds to a call.

#include "common/statistics.h"

#include <cstdint>

#include <benchmark/benchmark.h>

namespace nfslib::bench {
namespace {

// As the dispatcher counts a call; each sixteenth is timed.
void countCall(benchmark::State& state) {
  for (auto _ : state) {
    statistics::CountedCall call({statistics::Table::Nfs3, 1});
    benchmark::ClobberMemory();
    call.endedWith(true);
  }
}
BENCHMARK(countCall);

// All that is counted of a GETATTR over TCP whose attributes are in the cache.
void countGetAttr(benchmark::State& state) {
  for (auto _ : state) {
    statistics::count(statistics::Counter::BytesReceived, 124);
    {
      statistics::CountedCall call({statistics::Table::Nfs3, 1});
      benchmark::ClobberMemory();
      statistics::countLookUp(statistics::Cache::Attributes, true);
      call.endedWith(true);
    }
    statistics::count(statistics::Counter::BytesSent, 116);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(countGetAttr);

}  // namespace
}  // namespace nfslib::bench
