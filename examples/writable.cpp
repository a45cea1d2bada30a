// A directory in memory that clients may change, until Enter is pressed: mounted on the directory
// that is named, which needs root and the system's NFS client, or served to clients that need
// neither.
//
//   writable [MOUNTPOINT]

#include <nfslib/nfs_mounter.h>

#include "serve.h"
#include "stream_log.h"
#include "writable_tree.h"

int main(int argc, char** argv) try {
  writable::Tree tree(16U << 20);
  const nfslib::NfsMountSpec spec{.writeEnabled = true, .skipAddressAlias = true};
  if (argc < 2) {
    nfslib::CNfsLibLogger::getInstance().setImpl(std::make_unique<StreamLog>());
    return serve(tree, spec);
  }
  nfslib::NfsServer::instance().setPolicy(nfslib::NfsServerPolicy::modern());
  const nfslib::NfsMounter mounted(argv[1], tree, spec, std::make_unique<StreamLog>());
  std::cout << "mounted on " << argv[1] << std::endl;
  std::cin.get();
} catch (const std::exception& failure) {
  std::cerr << failure.what() << '\n';
  return 1;
}
