// Paths: every call makes, joins and looks up a few.

#include <nfslib/nfs_path.h>

#include "allocation_count.h"

#include <functional>
#include <string>

namespace nfslib::bench {
namespace {

const std::string kClean = "/projects/library/source/network/server.cpp";

void makeCleanPath(benchmark::State& state) {
  const CountAllocations count(state);
  for (auto _ : state) {
    const NfsPath path(kClean);
    benchmark::DoNotOptimize(path.str().data());
  }
}
BENCHMARK(makeCleanPath);

void makeUntidyPath(benchmark::State& state) {
  const std::string text = "projects//library/./source/x/../network/server.cpp/";
  const CountAllocations count(state);
  for (auto _ : state) {
    const NfsPath path(text);
    benchmark::DoNotOptimize(path.str().data());
  }
}
BENCHMARK(makeUntidyPath);

void joinName(benchmark::State& state) {
  const NfsPath directory("/projects/library/source/network");
  const std::string name = "server.cpp";
  const CountAllocations count(state);
  for (auto _ : state) {
    const NfsPath path = directory / name;
    benchmark::DoNotOptimize(path.str().data());
  }
}
BENCHMARK(joinName);

void parentOfPath(benchmark::State& state) {
  const NfsPath path(kClean);
  const CountAllocations count(state);
  for (auto _ : state) {
    const NfsPath parent = path.getParentPath();
    benchmark::DoNotOptimize(parent.str().data());
  }
}
BENCHMARK(parentOfPath);

void hashPath(benchmark::State& state) {
  const NfsPath path(kClean);
  const CountAllocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(std::hash<NfsPath>{}(path));
}
BENCHMARK(hashPath);

}  // namespace
}  // namespace nfslib::bench
