// Whole NFS version 3 calls without a network: arguments in, results out, through the program.

#include <nfslib/hosts/memory_file_system.h>
#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>

#include "allocation_count.h"
#include "common/memory_stream.h"
#include "common/xdr_records.h"
#include "nfs3/nfs3_program.h"
#include "server/nfs_service.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace nfslib::bench {
namespace {

enum Procedure : unsigned { kGetAttr = 1, kLookup = 3, kRead = 6, kReadDirPlus = 17 };

std::string nameOf(unsigned i) {
  std::array<char, 32> name;
  std::snprintf(name.data(), name.size(), "file-%06u", i);
  return name.data();
}

// A tree in memory and the program that serves it: a file of 1 MiB, and 1,000 empty ones.
class ServedTree {
 public:
  static constexpr unsigned kFiles = 1000;
  static constexpr unsigned kFileSize = 1 << 20;

  ServedTree() {
    const auto directory = m_tree.OpenRoot()->CreateSubdir("many");
    for (unsigned i = 0; i < kFiles; ++i) directory->CreateFile(nameOf(i));
    const std::vector<std::byte> data(kFileSize, std::byte{1});
    m_tree.OpenRoot()->CreateFile("large")->Write(0, data.data(), data.size());
    m_service.exportFileSystem(NfsPath("/bench"), m_tree, NfsMountSpec{.maxOpenFiles = 16});
    m_caller.flavor = rpc::AUTH_SYS;
  }

  NfsHandle root() { return m_service.getHandle(NfsPath("/bench")); }
  NfsHandle lookup(const std::string& name) {
    MemoryStream& reply = call(kLookup, [&](MemoryStream& call) { call << root() << name; });
    m_results.setInputData(reply.getOutputBuffer());
    unsigned status = 0;
    NfsHandle handle;
    m_results >> status >> handle;
    return handle;
  }

  // `arguments` are encoded once; the same call can then be repeated.
  template <class Arguments>
  MemoryStream& prepare(Arguments&& arguments) {
    m_call.clearOutput();
    arguments(m_call);
    m_stream.setInputData(m_call.getOutputBuffer());
    return m_stream;
  }
  void repeat(unsigned procedure) {
    m_stream.setInputSize(m_call.getOutputDataSize());
    m_stream.clearOutput();
    m_program.run(m_stream, {.version = nfs::Nfs3Program::kVersion, .procedure = procedure},
                  m_caller);
  }
  template <class Arguments>
  MemoryStream& call(unsigned procedure, Arguments&& arguments) {
    prepare(arguments);
    repeat(procedure);
    requireOk();
    return m_stream;
  }
  // The last reply has to be a success: a failure would be measured as a fast call.
  void requireOk() const {
    const memory::const_buffer reply = m_stream.getOutputBuffer();
    constexpr std::array<std::byte, 4> kOk{};
    if (reply.size() < kOk.size() || !(memory::const_buffer(reply, kOk.size()) ==
                                       memory::const_buffer(kOk.data(), kOk.size()))) {
      throw std::runtime_error("the call to measure fails");
    }
  }

 private:
  hosts::MemoryFileSystem m_tree{64 << 20};
  NfsService m_service;
  nfs::Nfs3Program m_program{m_service, false};
  rpc::AuthOpaque m_caller;
  MemoryStream m_call;
  MemoryStream m_stream;
  MemoryStream m_results;
};

void measure(benchmark::State& state, ServedTree& tree, unsigned procedure) {
  tree.repeat(procedure);  // the first call fills the caches
  {
    const CountAllocations count(state);
    for (auto _ : state) tree.repeat(procedure);
  }
  tree.requireOk();
}

void callGetAttr(benchmark::State& state) {
  ServedTree tree;
  const NfsHandle handle = tree.root();
  tree.prepare([&](MemoryStream& call) { call << handle; });
  measure(state, tree, kGetAttr);
}
BENCHMARK(callGetAttr);

void callLookup(benchmark::State& state) {
  ServedTree tree;
  const NfsHandle directory = tree.lookup("many");
  tree.prepare([&](MemoryStream& call) { call << directory << nameOf(ServedTree::kFiles / 2); });
  measure(state, tree, kLookup);
}
BENCHMARK(callLookup);

void callRead(benchmark::State& state) {
  ServedTree tree;
  const NfsHandle file = tree.lookup("large");
  tree.prepare([&](MemoryStream& call) {
    call << file << std::uint64_t{0} << static_cast<unsigned>(state.range(0));
  });
  measure(state, tree, kRead);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(callRead)->Arg(4096)->Arg(786'432);

// The first page of a listing.
void callReadDirPlus(benchmark::State& state) {
  constexpr unsigned kPage = 32768;
  ServedTree tree;
  const NfsHandle directory = tree.lookup("many");
  tree.prepare([&](MemoryStream& call) {
    call << directory << std::uint64_t{0} << std::uint64_t{0} << kPage << kPage;
  });
  measure(state, tree, kReadDirPlus);
}
BENCHMARK(callReadDirPlus);

}  // namespace
}  // namespace nfslib::bench
