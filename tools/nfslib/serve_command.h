#pragma once

#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_server_policy.h>

#include "source.h"
#include "statistics_report.h"
#include "stop_signals.h"

#include <cstdint>
#include <string>

namespace nfslib::tool {

// The options of `nfslib serve`.
struct ServeOptions {
  std::string source;
  NfsMountSpec spec;
  NfsServerPolicy policy = NfsServerPolicy::modern();
  ReportOptions report;
  std::uint64_t archiveCache = 256ULL << 20U;  // bytes; what an archive decodes stays within
  std::string logLevel;                        // empty: warnings and errors, once the server runs
  std::string logFile;                         // empty: standard error
};

// An address of the server as text.
std::string dotted(unsigned address);

// Keeps descriptors plenty: the library keeps directories and files open, and the usual limit of
// 1,024 would make that tight.
void raiseDescriptorLimit();

// Whether the program is installed where programs of administrators are.
bool hasProgram(const char* name);

// Whether the user asked for a log. Else it begins once all runs, so that a start that fails says
// so in one sentence of its own.
bool logsFromStart(const ServeOptions& options);
void installLog(const ServeOptions& options);

// What `options` say of the source, which is given up when a signal to stop comes.
SourceOptions sourceOptions(const ServeOptions& options, const StopSignals& stopSignals);

// Serves until SIGINT or SIGTERM. Throws std::exception when it cannot.
void serve(const ServeOptions& options);

}  // namespace nfslib::tool
