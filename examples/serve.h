#pragma once

#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_server.h>
#include <nfslib/nfs_server_policy.h>

#include <iostream>

// Serves `tree` until Enter is pressed or standard input ends; says on standard output where.
inline int serve(nfslib::FileSystem& tree, const nfslib::NfsMountSpec& spec) try {
  nfslib::NfsServer& server = nfslib::NfsServer::instance();
  server.setPolicy(nfslib::NfsServerPolicy::modern());
  server.exportFileSystem(nfslib::NfsPath("/tree"), tree, spec);
  std::cout << "nfs://127.0.0.1/tree/?nfsport=" << server.getNfsPort()
            << "&mountport=" << server.getMountPort() << std::endl;
  std::cin.get();
  server.removeExport(nfslib::NfsPath("/tree"));
  return 0;
} catch (const std::exception& failure) {
  std::cerr << failure.what() << '\n';
  return 1;
}
