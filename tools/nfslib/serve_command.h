#pragma once

#include <nfslib/nfs_mount_spec.h>

#include <string>

namespace nfslib::tool {

// The options of `nfslib serve`.
struct ServeOptions {
  std::string source;
  NfsMountSpec spec;
  std::string logLevel;  // empty: warnings and errors, once the server runs
  std::string logFile;   // empty: standard error
};

// Serves until SIGINT or SIGTERM. Throws std::exception when it cannot.
void serve(const ServeOptions& options);

}  // namespace nfslib::tool
