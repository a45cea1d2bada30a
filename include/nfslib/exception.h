#pragma once

#include <nfslib/export.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace nfslib {

/// What a host's file system throws when it cannot do what was asked: no such entry, not a
/// directory, an I/O failure. The message should be a sentence that names the object and the cause;
/// it ends up in the log.
///
/// A host may throw any other `std::exception` as well. Throw nothing else: an object that is not a
/// `std::exception` is not caught by the protocol code.
class NFSLIB_EXPORT INfsException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  /// A copy says the same.
  INfsException(const INfsException&) = default;
  /// Says from now on what the other one says.
  INfsException& operator=(const INfsException&) = default;
  ~INfsException() override;
};

/// An INfsException that also tells the cause as an error code of the system, as in `errno`.
/// Clients of the modern profile (see `NfsServerPolicy`) see the status that fits: EACCES as
/// NFS3ERR_ACCES or NFS4ERR_ACCESS, ENOENT as NFS3ERR_NOENT and so on. Throw it where the cause is
/// known.
///
/// A `std::system_error` says the same, and so does either of them nested in another exception.
class NFSLIB_EXPORT SystemNfsException : public INfsException {
 public:
  /// `what` is the message, to which nothing is added.
  SystemNfsException(std::error_code code, const std::string& what);
  /// The same for a value of errno.
  SystemNfsException(int error, const std::string& what);
  /// A copy says the same.
  SystemNfsException(const SystemNfsException&) = default;
  /// Says from now on what the other one says.
  SystemNfsException& operator=(const SystemNfsException&) = default;
  ~SystemNfsException() override;

  /// The cause; compares with `std::errc`.
  const std::error_code& code() const noexcept { return m_code; }

 private:
  std::error_code m_code;
};

/// Thrown by a host when a write, a creation, a link, a rename, a removal or an attribute change
/// fails for lack of space. Clients see it as "no space left on device" (NFS3ERR_NOSPC,
/// NFS4ERR_NOSPC).
class NFSLIB_EXPORT OutOfSpaceNfsException : public SystemNfsException {
 public:
  /// `error` is a value of errno. EDQUOT says that it is the caller's quota that is used up, which
  /// clients of the modern profile see as such.
  explicit OutOfSpaceNfsException(const std::string& what, int error = ENOSPC);
  /// A copy says the same.
  OutOfSpaceNfsException(const OutOfSpaceNfsException&) = default;
  /// Says from now on what the other one says.
  OutOfSpaceNfsException& operator=(const OutOfSpaceNfsException&) = default;
  ~OutOfSpaceNfsException() override;
};

}  // namespace nfslib
