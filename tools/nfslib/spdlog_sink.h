#pragma once

#include <nfslib/log.h>

#include <memory>
#include <string>

namespace nfslib::tool {

// The library's lines on standard error, or in a file, from `level` ("error", "warn", "info" or
// "debug") upward. Throws std::runtime_error when the file cannot be written.
std::unique_ptr<INfsLibLogSection> makeLogSink(const std::string& level, const std::string& file);

}  // namespace nfslib::tool
