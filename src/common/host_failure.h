#pragma once

#include <nfslib/exception.h>

#include "common/status.h"

#include <exception>
#include <string_view>

namespace nfslib {

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

}  // namespace nfslib
