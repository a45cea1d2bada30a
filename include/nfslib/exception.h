#pragma once

#include <nfslib/export.h>

#include <stdexcept>

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
  INfsException(const INfsException&) = default;
  INfsException& operator=(const INfsException&) = default;
  ~INfsException() override;
};

/// Thrown by a host when a write, a creation, a link, a rename, a removal or an attribute change
/// fails for lack of space. Clients see it as "no space left on device" (NFS3ERR_NOSPC,
/// NFS4ERR_NOSPC).
class NFSLIB_EXPORT OutOfSpaceNfsException : public INfsException {
 public:
  using INfsException::INfsException;
  OutOfSpaceNfsException(const OutOfSpaceNfsException&) = default;
  OutOfSpaceNfsException& operator=(const OutOfSpaceNfsException&) = default;
  ~OutOfSpaceNfsException() override;
};

}  // namespace nfslib
