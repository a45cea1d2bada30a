#pragma once

#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_server_policy.h>

#include "statistics_report.h"

#include <string>

namespace nfslib::tool {

// The options of `nfslib serve`.
struct ServeOptions {
  std::string source;
  NfsMountSpec spec;
  NfsServerPolicy policy = NfsServerPolicy::modern();
  ReportOptions report;
  std::string logLevel;  // empty: warnings and errors, once the server runs
  std::string logFile;   // empty: standard error
};

// An address of the server as text.
std::string dotted(unsigned address);

// Keeps descriptors plenty: the library keeps directories and files open, and the usual limit of
// 1,024 would make that tight.
void raiseDescriptorLimit();

// Whether the program is installed where programs of administrators are.
bool hasProgram(const char* name);

// Serves until SIGINT or SIGTERM. Throws std::exception when it cannot.
void serve(const ServeOptions& options);

}  // namespace nfslib::tool
