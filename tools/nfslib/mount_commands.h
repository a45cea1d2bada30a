#pragma once

#include "serve_command.h"

#include <string>

namespace nfslib::tool {

// The options of `nfslib mount`.
struct MountOptions {
  ServeOptions serve;
  std::string mountPoint;
  bool inBackground = false;
};

// Mounts, and stays until SIGINT, SIGTERM or somebody else's unmounting. Throws std::exception when
// it cannot.
void mount(const MountOptions& options);

// Ends the process that has mounted there and waits until it has unmounted, or clears away what
// such a process has left. Throws std::runtime_error.
void unmount(const std::string& mountPoint);

// Prints what this machine has mounted through `mount`.
void list();

}  // namespace nfslib::tool
