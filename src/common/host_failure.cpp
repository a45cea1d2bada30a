#include "common/host_failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <optional>
#include <system_error>

namespace nfslib {

using nfs::OperationResult;

namespace {

struct Meaning {
  int error;
  OperationResult status;
};
// Only statuses that both versions of the protocol have.
constexpr std::array kMeanings{
    Meaning{EPERM, OperationResult::NotOwner},
    Meaning{ENOENT, OperationResult::NoEntry},
    Meaning{EIO, OperationResult::HardwareIoError},
    Meaning{ENXIO, OperationResult::NoSuchDeviceOrAddress},
    Meaning{EAGAIN, OperationResult::Delay},
    Meaning{ENOMEM, OperationResult::ServerFault},
    Meaning{EACCES, OperationResult::PermissionDenied},
    Meaning{EBUSY, OperationResult::PermissionDenied},
    Meaning{EEXIST, OperationResult::FileExist},
    Meaning{EXDEV, OperationResult::CrossDeviceHardLink},
    Meaning{ENODEV, OperationResult::NoSuchDevice},
    Meaning{ENOTDIR, OperationResult::NotDirectory},
    Meaning{EISDIR, OperationResult::IsDirectory},
    Meaning{EINVAL, OperationResult::InvalidArgument},
    Meaning{ELOOP, OperationResult::InvalidArgument},  // a link where none may be
    Meaning{ENFILE, OperationResult::ServerFault},
    Meaning{EMFILE, OperationResult::ServerFault},
    Meaning{EFBIG, OperationResult::FileTooLarge},
    Meaning{ENOSPC, OperationResult::NoSpaceLeftOnDevice},
    Meaning{EROFS, OperationResult::ReadOnlyFileSystem},
    Meaning{EMLINK, OperationResult::TooManyHardLinks},
    Meaning{ENAMETOOLONG, OperationResult::FileNameIsTooLong},
    Meaning{ENOTEMPTY, OperationResult::DirectoryIsNotEmpty},
    Meaning{EDQUOT, OperationResult::ResourceHardLimitExceeded},
    Meaning{ESTALE, OperationResult::InvalidFileHandle},
    Meaning{ENOSYS, OperationResult::NotSupported},
    Meaning{ENOTSUP, OperationResult::NotSupported},
};

std::optional<OperationResult> meaningOf(const std::error_code& code) {
  // A code of another category stands for a value of errno, if for any.
  const std::error_condition condition = code.default_error_condition();
  if (condition.category() != std::generic_category()) return std::nullopt;
  const auto row = std::ranges::find(kMeanings, condition.value(), &Meaning::error);
  if (row == kMeanings.end()) return std::nullopt;
  return row->status;
}

// By its class alone.
std::optional<OperationResult> knownStatus(const std::exception& failure) {
  if (const auto* e = dynamic_cast<const nfs::NfsOperationError*>(&failure)) return e->result();
  if (const auto* e = dynamic_cast<const OperationError*>(&failure)) return e->result();
  if (const auto* e = dynamic_cast<const SystemNfsException*>(&failure)) {
    return meaningOf(e->code());
  }
  if (const auto* e = dynamic_cast<const std::system_error*>(&failure)) {
    return meaningOf(e->code());
  }
  if (dynamic_cast<const UnknownHandle*>(&failure) != nullptr) {
    return OperationResult::InvalidFileHandle;
  }
  if (dynamic_cast<const std::bad_alloc*>(&failure) != nullptr) return OperationResult::ServerFault;
  return std::nullopt;
}

std::optional<OperationResult> promisedStatus(std::string_view why) {
  if (why.find("already exists") != why.npos) return OperationResult::FileExist;
  if (why.find("not empty") != why.npos) return OperationResult::DirectoryIsNotEmpty;
  return std::nullopt;
}

// What the failure tells, or the first of its causes that tells anything.
template <class Tell>
std::optional<OperationResult> firstTold(const std::exception& failure, const Tell& tell) {
  if (const auto status = tell(failure)) return status;
  try {
    std::rethrow_if_nested(failure);
  } catch (const std::exception& cause) {
    return firstTold(cause, tell);
  } catch (...) {  // NOLINT(bugprone-empty-catch): it says nothing that we could tell a client
  }
  return std::nullopt;
}

}  // namespace

OperationResult statusOfFailure(const std::exception& failure) {
  const auto tell = [](const std::exception& cause) {
    const auto status = knownStatus(cause);
    return status ? status : promisedStatus(cause.what());
  };
  return firstTold(failure, tell).value_or(OperationResult::HardwareIoError);
}

std::optional<OperationResult> toldStatus(const std::exception& failure) {
  return firstTold(failure, knownStatus);
}

}  // namespace nfslib
