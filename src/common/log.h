#pragma once

#include <nfslib/log.h>
#include <nfslib/nfs_path.h>

#include "common/nfs_handle.h"

#include <atomic>
#include <concepts>
#include <exception>
#include <string>
#include <string_view>

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

// The library's own way to its log: `log().dbg("readLink: path [%1]", path)`. Arguments are
// strings, paths, handles and whole numbers; they are turned into text only when the sink keeps the
// level.
class Log {
 public:
  template <class... Args>
  void dbg(const char* format, const Args&... args) const {
    if (logging::keeps(LogLevel::dbg)) sink()->dbg(fill(format, args...));
  }
  template <class... Args>
  void info(const char* format, const Args&... args) const {
    if (logging::keeps(LogLevel::info)) sink()->info(fill(format, args...));
  }
  template <class... Args>
  void warn(const char* format, const Args&... args) const {
    if (logging::keeps(LogLevel::warn)) sink()->warn(fill(format, args...));
  }
  template <class... Args>
  void err(const char* format, const Args&... args) const {
    if (logging::keeps(LogLevel::err)) sink()->err(fill(format, args...));
  }
  // With the exception that the line is about.
  template <class... Args>
  void errWith(std::exception& e, const char* format, const Args&... args) const {
    if (logging::keeps(LogLevel::err)) sink()->err(fill(format, args...), e);
  }
  void err(std::exception& e) const {
    if (logging::keeps(LogLevel::err)) sink()->err(e);
  }

 private:
  static std::shared_ptr<INfsLibLogSection> sink() {
    return CNfsLibLogger::getInstance().getImpl();
  }
  template <class... Args>
  static std::string fill(const char* format, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
      return format;
    } else {
      return utility::str_format(format, {logging::text(args)...});
    }
  }
};

inline Log log() { return {}; }

// The text of an exception or a line, for code that throws: the same placeholders.
template <class... Args>
std::string message(const char* format, const Args&... args) {
  return utility::str_format(format, {logging::text(args)...});
}

}  // namespace nfslib
