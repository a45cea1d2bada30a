#pragma once

#include <nfslib/nfs_server_statistics.h>

#include <string>
#include <string_view>

namespace nfslib::tool {

// The program of a procedure in small letters: "nfs", "mount" or "portmap".
std::string_view programName(const NfsServerStatistics::Procedure& procedure);

// The statistics in the text format 0.0.4 of Prometheus: seconds and bytes.
std::string prometheusText(const NfsServerStatistics& statistics);

}  // namespace nfslib::tool
