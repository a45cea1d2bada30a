// Random operations on a writable export, compared with a model: NFSLIB_MODEL_SEED repeats a run,
// NFSLIB_MODEL_OPERATIONS says how long it is.

#include <nfslib/hosts/memory_file_system.h>
#include <nfslib/hosts/posix_file_system.h>
#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>

#include "model/random_client.h"
#include "server/ports.h"
#include "support/scratch_directory.h"

#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nfslib::testing::model {

namespace {

// The cases of RENAME that a long run must have met.
constexpr const char* kRenames[] = {
    "by an old handle",
    "of nothing",
    "into a file",
    "to no name",
    "onto itself",
    "over a name of the same file",
    "into itself",
    "of a directory over a file",
    "of a file over a directory",
    "over a directory with entries",
    "of a file",
    "of a directory",
    "of a directory with entries to another",
    "over an empty directory",
    "over a file",
};

std::uint64_t fromEnvironment(const char* name, const std::function<std::uint64_t()>& otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise();
}

// What the host's own objects show.
void paint(Directory& dir, const std::string& path, Picture& picture) {
  for (const auto pass = dir.Enumerate(); pass->IsValid(); pass->MoveNext()) {
    const auto& [name, md] = pass->Current();
    if (name == "." || name == "..") continue;
    const std::string place = path + "/" + name;
    std::string content;
    if (isType(md, FileType::Directory)) {
      paint(*dir.OpenSubdir(name), place, picture);
    } else if (isType(md, FileType::SymbolicLink)) {
      content = dir.OpenSymlink(name)->GetTarget();
    } else {
      content.resize(md.size);
      dir.OpenFile(name)->Read(0, content.data(), content.size());
    }
    picture[place] = describe(static_cast<FileType>(md.type), md.mode, md.linkCount, content);
  }
}

}  // namespace

enum class Host { Memory, Posix };

class ModelTest : public ::testing::TestWithParam<Host> {
 protected:
  void SetUp() override {
    if (!address::isPortUnused(111, "127.0.0.1", SOCK_STREAM)) {
      GTEST_SKIP() << "port 111 is taken, or not for this user";
    }
    m_umask = ::umask(022);
    if (GetParam() == Host::Memory) {
      m_host = std::make_unique<hosts::MemoryFileSystem>(1UL << 30);
    } else {
      m_host = std::make_unique<hosts::PosixFileSystem>(m_scratch.path());
    }
    m_setsOwners = ::chown(m_scratch.path().c_str(), 1000, 1003) == 0 &&
                   ::chown(m_scratch.path().c_str(), ::geteuid(), ::getegid()) == 0;
    NfsMountSpec spec;
    spec.skipAddressAlias = true;
    spec.writeEnabled = true;
    spec.maxOpenFiles = 8;  // so that files are opened again, too
    NfsServer::instance().exportFileSystem(NfsPath(kExport), *m_host, spec);
    m_isServed = true;
    std::cout << "NFSLIB_MODEL_SEED=" << m_seed << std::endl;
  }
  void TearDown() override {
    if (!m_isServed) return;
    NfsServer::instance().removeExport(NfsPath(kExport));
    ::umask(m_umask);
  }

  ClientSetup setup(std::uint64_t number, const std::string& name) const {
    return {port(), kExport, *m_host, m_seed + number * 1'000'003, name, m_setsOwners};
  }
  static unsigned port() { return NfsServer::instance().getNfsPort(); }

  // By the host, and by a client that has seen nothing yet.
  void expectTree(const Picture& wanted) const {
    Picture kept;
    paint(*m_host->OpenRoot(), "", kept);
    EXPECT_EQ(kept, wanted) << "seed " << m_seed;
    Nfs3Client fresh(port());
    EXPECT_EQ(RandomClient::seen(fresh, fresh.mount(kExport)), wanted) << "seed " << m_seed;
  }
  // What a long run must have met and has not: statuses, and these cases of RENAME.
  std::vector<std::string> untried(const Tally& tally,
                                   std::span<const char* const> renames = {}) const {
    std::vector<std::string> lines;
    constexpr unsigned kEnough = 3000;
    if (m_operations < kEnough) return lines;  // somebody wants a short run
    const auto require = [&](const std::string& line) {
      if (!tally.contains(line)) lines.push_back(line);
    };
    for (const RandomClient::Operation& operation : RandomClient::operations()) {
      for (const unsigned status : operation.statuses)
        require(operation.name + (" " + std::to_string(status)));
    }
    for (const std::string how : renames) require("RENAME " + how);
    return lines;
  }

  static constexpr const char* kExport = "/model";
  const std::uint64_t m_seed =
      fromEnvironment("NFSLIB_MODEL_SEED", [] { return std::random_device()(); });
  const unsigned m_operations =
      static_cast<unsigned>(fromEnvironment("NFSLIB_MODEL_OPERATIONS", [] { return 4000; }));

 private:
  ScratchDirectory m_scratch;
  std::unique_ptr<FileSystem> m_host;
  bool m_setsOwners = false;
  bool m_isServed = false;
  mode_t m_umask = 0;
};

TEST_P(ModelTest, OneClientMeetsWhatTheModelSays) {
  RandomClient client(setup(0, ""));
  ASSERT_NO_THROW({
    client.run(m_operations);
    // The rarest case may take longer.
    for (int more = 0; more < 10 && !untried(client.tally(), kRenames).empty(); ++more)
      client.run(500);
  });
  expectTree(client.expected());
  EXPECT_THAT(untried(client.tally(), kRenames), ::testing::IsEmpty());
}

// Each in a directory of its own, from which its entries wander through one that all share.
TEST_P(ModelTest, EightClientsDoNotDisturbEachOther) {
  constexpr unsigned kClients = 8;
  Nfs3Client first(port());
  checked(first.makeDirectory(first.mount(kExport), "shared", {}));

  std::vector<Picture> pictures(kClients);
  std::vector<Tally> tallies(kClients);
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      try {
        RandomClient client(setup(i + 1, "c" + std::to_string(i)));
        client.run(m_operations / 6);
        pictures[i] = client.expected();
        tallies[i] = client.tally();
      } catch (const std::exception& e) {
        ADD_FAILURE() << "NFSLIB_MODEL_SEED=" << m_seed << ", client " << i << ": " << e.what();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  if (HasFailure()) return;

  Picture wanted;
  Tally tally;
  for (Picture& picture : pictures) wanted.merge(picture);
  for (const Tally& one : tallies) {
    for (const auto& [line, count] : one) tally[line] += count;
  }
  expectTree(wanted);
  EXPECT_THAT(untried(tally), ::testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Hosts, ModelTest, ::testing::Values(Host::Memory, Host::Posix),
                         [](const auto& host) -> std::string {
                           return host.param == Host::Memory ? "Memory" : "Posix";
                         });

}  // namespace nfslib::testing::model
