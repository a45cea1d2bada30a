#pragma once

#include <nfslib/log.h>
#include <nfslib/nfs_path.h>

#include "common/nfs_handle.h"

#include <atomic>
#include <concepts>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace nfslib {

namespace logging {

// The levels that the current sink keeps, one bit each. Every request asks before it formats a
// line, so the answer has to cost one load.
extern std::atomic<unsigned> keptLevels;

inline bool keeps(LogLevel level) {
  return (keptLevels.load(std::memory_order_relaxed) & (1U << static_cast<unsigned>(level))) != 0;
}

inline std::string text(std::string_view value) { return std::string(value); }
inline std::string text(const NfsPath& path) { return path.str(); }
inline std::string text(const NfsHandle& handle) { return str(handle); }
inline std::string text(std::integral auto number) { return std::to_string(number); }

}  // namespace logging

// The text of a line or of an exception: `format` with its placeholders filled.
template <class... Args>
std::string message(const char* format, const Args&... args) {
  return utility::str_format(format, std::vector<std::string>{logging::text(args)...});
}

// The library's own way to its log: `log().dbg("readLink: path [%1]", path)`. Arguments are
// strings, paths, handles and whole numbers; they are turned into text only when the sink keeps the
// level.
class Log {
 public:
  template <class... Args>
  void dbg(const char* format, const Args&... args) const {
    if (logging::keeps(LogLevel::dbg)) sink()->dbg(message(format, args...));
  }
  template <class... Args>
  void info(const char* format, const Args&... args) const {
    if (logging::keeps(LogLevel::info)) sink()->info(message(format, args...));
  }
  template <class... Args>
  void warn(const char* format, const Args&... args) const {
    if (logging::keeps(LogLevel::warn)) sink()->warn(message(format, args...));
  }
  template <class... Args>
  void err(const char* format, const Args&... args) const {
    if (logging::keeps(LogLevel::err)) sink()->err(message(format, args...));
  }
  // With the exception that the line is about.
  template <class... Args>
  void errWith(std::exception& e, const char* format, const Args&... args) const {
    if (logging::keeps(LogLevel::err)) sink()->err(message(format, args...), e);
  }
  void err(std::exception& e) const {
    if (logging::keeps(LogLevel::err)) sink()->err(e);
  }

 private:
  static std::shared_ptr<INfsLibLogSection> sink() {
    return CNfsLibLogger::getInstance().getImpl();
  }
};

inline Log log() { return {}; }

}  // namespace nfslib
