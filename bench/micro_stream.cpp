// The XDR stream: how fast numbers, strings and opaque data go through it.

#include "allocation_count.h"
#include "common/memory_stream.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace nfslib::bench {
namespace {

constexpr unsigned kWords = 1024;

void encodeWords(benchmark::State& state) {
  MemoryStream stream;
  const CountAllocations count(state);
  for (auto _ : state) {
    stream.clearOutput();
    for (unsigned i = 0; i < kWords; ++i) stream << i;
    benchmark::DoNotOptimize(stream.getOutputBuffer().data());
  }
  state.SetItemsProcessed(state.iterations() * kWords);
}
BENCHMARK(encodeWords);

// A stream whose input is its own output.
void turnAround(MemoryStream& stream) { stream.setInputData(stream.getOutputBuffer()); }

void decodeWords(benchmark::State& state) {
  MemoryStream stream;
  for (unsigned i = 0; i < kWords; ++i) stream << i;
  const unsigned size = stream.getOutputDataSize();
  turnAround(stream);
  const CountAllocations count(state);
  for (auto _ : state) {
    stream.setInputSize(size);
    unsigned value = 0;
    for (unsigned i = 0; i < kWords; ++i) stream >> value;
    benchmark::DoNotOptimize(value);
  }
  state.SetItemsProcessed(state.iterations() * kWords);
}
BENCHMARK(decodeWords);

void encodeHypers(benchmark::State& state) {
  MemoryStream stream;
  const CountAllocations count(state);
  for (auto _ : state) {
    stream.clearOutput();
    for (unsigned long i = 0; i < kWords; ++i) stream << i;
    benchmark::DoNotOptimize(stream.getOutputBuffer().data());
  }
  state.SetItemsProcessed(state.iterations() * kWords);
}
BENCHMARK(encodeHypers);

void encodeName(benchmark::State& state) {
  MemoryStream stream;
  const std::string name = "a name of usual length.txt";
  const CountAllocations count(state);
  for (auto _ : state) {
    stream.clearOutput();
    stream << name;
    benchmark::DoNotOptimize(stream.getOutputBuffer().data());
  }
}
BENCHMARK(encodeName);

void decodeName(benchmark::State& state) {
  MemoryStream stream;
  stream << std::string("a name of usual length.txt");
  const unsigned size = stream.getOutputDataSize();
  turnAround(stream);
  const CountAllocations count(state);
  for (auto _ : state) {
    stream.setInputSize(size);
    std::string name;
    stream >> name;
    benchmark::DoNotOptimize(name.data());
  }
}
BENCHMARK(decodeName);

void encodeOpaque(benchmark::State& state) {
  MemoryStream stream;
  const std::vector<std::byte> data(static_cast<std::size_t>(state.range(0)), std::byte{1});
  const CountAllocations count(state);
  for (auto _ : state) {
    stream.clearOutput();
    stream << data;
    benchmark::DoNotOptimize(stream.getOutputBuffer().data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(encodeOpaque)->Arg(16)->Arg(4096)->Arg(786'432);

}  // namespace
}  // namespace nfslib::bench
