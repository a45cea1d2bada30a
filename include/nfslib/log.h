#pragma once

#include <nfslib/export.h>
#include <nfslib/nfs_path.h>

#include <cstdarg>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

/// \file
/// Where the library's messages go. The library writes no log of its own: every line is handed to
/// the sink that the host installed, and to nowhere before that.

namespace nfslib {

namespace utility {

/// Replaces each placeholder `%n` of `format` by argument n, counted from 1. A placeholder without
/// an argument, and a `%` without a number, stay as they are.
///
///     str_format("Program [%1], procedure [%2]", {"100003", "0"})  // Program [100003], procedure
///     [0]
NFSLIB_EXPORT std::string str_format(const std::string& format,
                                     const std::vector<std::string>& args);
/// A copy of `format`.
NFSLIB_EXPORT std::string str_format(const std::string& format);
/// What `vsnprintf` makes of `format` and `args`, cut after 4,094 characters.
NFSLIB_EXPORT std::string str_format(const std::string& format, va_list args);
/// The system's text for the error number, "POSIX error: N" when it has none. Thread-safe.
NFSLIB_EXPORT std::string getErrnoDescription(int errnum);
/// The lower-case text form of a 16-byte UUID in braces, 38 characters.
NFSLIB_EXPORT std::string guidToStr(unsigned char* uuid);

}  // namespace utility

/// Two upper-case hexadecimal digits.
template <class Byte>
std::string to_hex(Byte value);
/// The form that there is, for a byte.
template <>
NFSLIB_EXPORT std::string to_hex<std::byte>(std::byte value);

/// The four levels of the library's lines.
enum class LogLevel : unsigned { dbg, info, warn, err };

/// The host's sink. Derive from it and hand it to `CNfsLibLogger::setImpl`.
///
/// It is called from every thread of the library, several at once; it must not throw, and should
/// return soon, since requests wait for it. The library itself uses the forms with one string and
/// the forms with a string and an exception; the others exist for the host's own use.
///
/// The library sends every line, debug lines of each request included, and leaves the choice to the
/// sink. A sink that drops a whole level should say so with `discard`: its lines are then not even
/// put together, which makes requests cheaper.
class NFSLIB_EXPORT INfsLibLogSection {
 public:
  virtual ~INfsLibLogSection();

  /// Something that an administrator may want to know.
  virtual void info(const std::string& message) = 0;
  /// The same with a number of the host's own, such as a level of detail.
  virtual void info(int number, const std::string& message) = 0;
  /// A line for whoever watches the host's present job, and not only for the log.
  virtual void addSessionInfo(const std::string& message) = 0;
  /// One line or several for each request: for looking into a problem.
  virtual void dbg(const std::string& message) = 0;
  /// The same with a number of the host's own.
  virtual void dbg(int number, const std::string& message) = 0;
  /// Something went wrong or was refused, and the server goes on.
  virtual void warn(const std::string& message) = 0;
  /// The same where the exception says it all.
  virtual void warn(std::exception& e) = 0;
  /// The same, with the exception that is the cause.
  virtual void warn(const std::string& message, std::exception& e) = 0;
  /// A warning for whoever watches the host's present job: the mount is not the one that was asked
  /// for.
  virtual void addSessionWarn(const std::string& message) = 0;
  /// Something failed that the host had asked for, or that ends a part of the server.
  virtual void err(const std::string& message) = 0;
  /// The same, with the exception that is the cause.
  virtual void err(const std::string& message, std::exception& e) = 0;
  /// The same where the exception says it all.
  virtual void err(std::exception& e) = 0;
  /// An error for whoever watches the host's present job.
  virtual void addSessionErr(const std::string& message) = 0;

  /// A line of information, put together: `format` with `[%1]`, `[%2]`, ... filled by the
  /// arguments, each of them a `std::string`, a `const char*` or an `NfsPath`. They are passed on
  /// as one string, unless the level is discarded.
  template <class... Args>
  requires(sizeof...(Args) > 0 && (std::is_constructible_v<std::string, const Args&> &&
                                   ...)) void info(const std::string& format, const Args&... args) {
    if (keeps(LogLevel::info)) info(utility::str_format(format, {std::string(args)...}));
  }
  /// The same for a debug line.
  template <class... Args>
  requires(sizeof...(Args) > 0 && (std::is_constructible_v<std::string, const Args&> &&
                                   ...)) void dbg(const std::string& format, const Args&... args) {
    if (keeps(LogLevel::dbg)) dbg(utility::str_format(format, {std::string(args)...}));
  }
  /// The same for a warning.
  template <class... Args>
  requires(sizeof...(Args) > 0 && (std::is_constructible_v<std::string, const Args&> &&
                                   ...)) void warn(const std::string& format, const Args&... args) {
    if (keeps(LogLevel::warn)) warn(utility::str_format(format, {std::string(args)...}));
  }
  /// The same for an error.
  template <class... Args>
  requires(sizeof...(Args) > 0 && (std::is_constructible_v<std::string, const Args&> &&
                                   ...)) void err(const std::string& format, const Args&... args) {
    if (keeps(LogLevel::err)) err(utility::str_format(format, {std::string(args)...}));
  }
  /// A warning, put together from one string, and the exception that it is about.
  void warn(const std::string& format, const std::string& a, std::exception& e);
  /// A warning, put together from two strings, and the exception that it is about.
  void warn(const std::string& format, const std::string& a, const std::string& b,
            std::exception& e);
  /// A warning, put together from three strings, and the exception that it is about.
  void warn(const std::string& format, const std::string& a, const std::string& b,
            const std::string& c, std::exception& e);
  /// A warning, put together from four strings, and the exception that it is about.
  void warn(const std::string& format, const std::string& a, const std::string& b,
            const std::string& c, const std::string& d, std::exception& e);
  /// An error, put together from one string, and the exception that it is about.
  void err(const std::string& format, const std::string& a, std::exception& e);
  /// An error, put together from two strings, and the exception that it is about.
  void err(const std::string& format, const std::string& a, const std::string& b,
           std::exception& e);
  /// An error, put together from three strings, and the exception that it is about.
  void err(const std::string& format, const std::string& a, const std::string& b,
           const std::string& c, std::exception& e);
  /// An error, put together from four strings, and the exception that it is about.
  void err(const std::string& format, const std::string& a, const std::string& b,
           const std::string& c, const std::string& d, std::exception& e);

  /// Whether lines of `level` are worth putting together.
  bool keeps(LogLevel level) const { return (m_discarded & bit(level)) == 0; }

 protected:
  /// Tells that lines of `level` would be dropped. To be called before the sink is installed.
  void discard(LogLevel level) { m_discarded |= bit(level); }

 private:
  static unsigned bit(LogLevel level) { return 1U << static_cast<unsigned>(level); }

  unsigned m_discarded = 0;
};

/// The process-wide place of the current sink: a stub that drops everything, until the host
/// installs one of its own. Thread-safe.
class NFSLIB_EXPORT CNfsLibLogger {
 public:
  /// The place of this process, made on first use.
  static CNfsLibLogger& getInstance();

  /// The current sink. A caller keeps the pointer while it writes, so a sink that is replaced
  /// meanwhile stays alive until its last line is done.
  std::shared_ptr<INfsLibLogSection> getImpl() const;
  /// Makes the host's sink the current one and takes ownership of it.
  void setImpl(std::unique_ptr<INfsLibLogSection> impl);
  /// Goes back to the stub and releases the host's sink.
  void resetImpl();

  CNfsLibLogger(const CNfsLibLogger&) = delete;
  CNfsLibLogger& operator=(const CNfsLibLogger&) = delete;

 private:
  CNfsLibLogger();
  ~CNfsLibLogger();

  void replace(std::shared_ptr<INfsLibLogSection> impl);

  mutable std::mutex m_lock;  // guards m_impl; nothing else is locked under it
  std::shared_ptr<INfsLibLogSection> m_impl;
};

}  // namespace nfslib
