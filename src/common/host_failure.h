#pragma once

#include <nfslib/exception.h>

#include "common/profile.h"
#include "common/status.h"

#include <exception>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace nfslib {

// A handle that leads to no object: that of an export which is gone, or one that was never given
// out.
class UnknownHandle : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A call whose arguments cannot be decoded: the answer is not the program's but RPC's.
class UndecodableArguments : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The status for a failure that the host, or the library in its place, has thrown. A status that
// was thrown, an error code of the system, and an unknown handle are told as what they are, nested
// ones included; then the words that the host classes promise ("already exists", "not empty");
// HardwareIoError for anything else.
nfs::OperationResult statusOfFailure(const std::exception& failure);
// The same by what was thrown alone, without the words, which may be those of a name; nothing when
// that does not tell.
std::optional<nfs::OperationResult> toldStatus(const std::exception& failure);

// Runs `call`, which changes the host's tree, and gives the status of its reply: a host that is out
// of space means NoSpaceLeftOnDevice in every operation, whatever else it throws passes out.
template <class Call>
nfs::OperationResult statusOfHostCall(const Call& call) {
  try {
    call();
    return nfs::OperationResult::OK;
  } catch (const OutOfSpaceNfsException&) {
    return nfs::OperationResult::NoSpaceLeftOnDevice;
  }
}

// The same; `explain(why)` logs any other failure, whose text is `why`, and gives its status.
template <class Call, class Explain>
nfs::OperationResult statusOfHostCall(const Call& call, const Explain& explain) {
  try {
    return statusOfHostCall(call);
  } catch (const std::exception& e) {
    return explain(std::string_view(e.what()));
  }
}

// The first of them for either profile: in the modern one whatever the host throws passes out, and
// the program answers it.
template <class Call>
nfs::OperationResult statusOfHostCall(const Profile& profile, const Call& call) {
  if (!profile.isModern) return statusOfHostCall(call);
  call();
  return nfs::OperationResult::OK;
}

// The second for either profile: in the modern one the status is that of statusOfFailure, whatever
// `explain` gives, which then only logs.
template <class Call, class Explain>
nfs::OperationResult statusOfHostCall(const Profile& profile, const Call& call,
                                      const Explain& explain) {
  if (!profile.isModern) return statusOfHostCall(call, explain);
  try {
    call();
    return nfs::OperationResult::OK;
  } catch (const std::exception& e) {
    explain(std::string_view(e.what()));
    return statusOfFailure(e);
  }
}

}  // namespace nfslib
