// A host outside the tree: a class of its own and a ready-made host, behind one server.
//
// usage: consumer DIRECTORY
//
// Prints the port of NFS once both exports, /own and /directory, can be read with version 4, and
// serves until standard input ends.

#include <nfslib/exception.h>
#include <nfslib/file_system.h>
#include <nfslib/hosts/memory_file_system.h>
#include <nfslib/hosts/posix_file_system.h>
#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>
#include <nfslib/nfs_server_policy.h>

#include <exception>
#include <iostream>
#include <limits>
#include <memory>
#include <string>

namespace {

class Own : public nfslib::FileSystem {
 public:
  Own() {
    const std::string text = "from a host outside the tree\n";
    m_tree.OpenRoot()->CreateFile("note")->Write(0, text.data(), text.size());
  }
  std::shared_ptr<nfslib::Directory> OpenRoot() override { return m_tree.OpenRoot(); }

 private:
  nfslib::hosts::MemoryFileSystem m_tree{1U << 20U};
};

// Whether an exception of the library's is one here too.
bool failsAsDeclared(const std::string& directory) {
  try {
    const nfslib::hosts::PosixFileSystem tree(directory + "/no/such/directory");
  } catch (const nfslib::INfsException&) {
    return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  try {
    if (!failsAsDeclared(argv[1])) return 3;
    Own own;
    nfslib::hosts::PosixFileSystem directory(argv[1]);
    nfslib::NfsServer& server = nfslib::NfsServer::instance();
    server.setPolicy(nfslib::NfsServerPolicy::modern());
    nfslib::NfsMountSpec spec;
    spec.version = 4;
    server.exportFileSystem(nfslib::NfsPath("/own"), own, spec);
    server.exportFileSystem(nfslib::NfsPath("/directory"), directory, spec);
    std::cout << server.getNfsPort() << std::endl;
    std::cin.ignore(std::numeric_limits<std::streamsize>::max());
    server.removeExport(nfslib::NfsPath("/directory"));
    server.removeExport(nfslib::NfsPath("/own"));
    return 0;
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
    return 1;
  }
}
