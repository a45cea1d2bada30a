// Serves the reference host in memory, filled with one directory of empty files: a tree whose
// answers cost nothing, so what is measured is the library. Runs until SIGINT or SIGTERM.

#include <nfslib/file_system.h>
#include <nfslib/hosts/memory_file_system.h>
#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>

#include <array>
#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>
#include <signal.h>

namespace {

constexpr std::uint64_t kCapacity = 1 << 30;
const char* const kDirectory = "many";

void fill(nfslib::FileSystem& tree, unsigned files) {
  const auto directory = tree.OpenRoot()->CreateSubdir(kDirectory);
  for (unsigned i = 0; i < files; ++i) {
    std::array<char, 32> name;
    std::snprintf(name.data(), name.size(), "file-%06u", i);
    directory->CreateFile(name.data());
  }
}

void serve(const nfslib::NfsMountSpec& spec, unsigned files) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);  // before the server's threads inherit the mask

  nfslib::hosts::MemoryFileSystem tree(kCapacity);
  fill(tree, files);
  const nfslib::NfsPath path("/bench");
  nfslib::NfsServer& server = nfslib::NfsServer::instance();
  server.exportFileSystem(path, tree, spec);
  std::printf("export %s\naddress 127.0.0.1\nnfs-port %u\nmount-port %u\nready\n",
              path.str().c_str(), server.getNfsPort(), server.getMountPort());
  std::fflush(stdout);
  int signal = 0;
  sigwait(&ends, &signal);
  server.removeExport(path);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Serves a directory \"many\" of empty files from memory.");
  nfslib::NfsMountSpec spec;
  spec.skipAddressAlias = true;  // 127.0.0.1
  unsigned files = 0;
  app.add_option("--nfs-version", spec.version, "3 or 4")->check(CLI::IsMember({3, 4}));
  app.add_option("--nfs-port", spec.useNfsPort, "Port of the NFS program");
  app.add_option("--mount-port", spec.useMountPort, "Port of the MOUNT program");
  app.add_option("--files", files, "Number of files")->required();
  CLI11_PARSE(app, argc, argv);
  try {
    serve(spec, files);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "memory_server: %s\n", e.what());
    return 1;
  }
}
