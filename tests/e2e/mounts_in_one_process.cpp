// A host that has several trees of its own mounted at once, each on its own directory.
//
//   mounts_in_one_process MOUNTPOINT...
//
// Prints "mounted" when all of them are. Each line on standard input then ends one, in their order,
// and is answered with "unmounted".

#include <nfslib/hosts/memory_file_system.h>
#include <nfslib/nfs_mounter.h>

#include <exception>
#include <iostream>
#include <list>
#include <string>

namespace {

// Ends in the opposite order: the tree outlives its mount.
struct Mount {
  explicit Mount(const std::string& mountPoint)
      : mounter(mountPoint, tree, {.writeEnabled = true, .rsize = 131072, .skipAddressAlias = true},
                nullptr) {}

  nfslib::hosts::MemoryFileSystem tree{16U << 20U};
  nfslib::NfsMounter mounter;
};

}  // namespace

int main(int argc, char** argv) {
  try {
    std::list<Mount> mounts;
    for (int i = 1; i < argc; ++i) mounts.emplace_back(argv[i]);
    std::cout << "mounted" << std::endl;
    for (std::string line; !mounts.empty() && std::getline(std::cin, line);) {
      mounts.pop_front();
      std::cout << "unmounted" << std::endl;
    }
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "mounts_in_one_process: " << e.what() << '\n';
    return 1;
  }
}
