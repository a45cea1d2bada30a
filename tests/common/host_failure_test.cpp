#include "common/host_failure.h"

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <system_error>

#include <gmock/gmock.h>

namespace nfslib {
namespace {

using nfs::NfsOperationError;
using nfs::OperationResult;

OperationResult statusOf(const std::function<void()>& fail) {
  try {
    fail();
  } catch (const std::exception& e) {
    return statusOfFailure(e);
  }
  return OperationResult::OK;
}

TEST(HostFailureTest, TheCauseDecidesBeforeTheWords) {
  const auto system = [](int error, const char* text) {
    return statusOf([&] { throw SystemNfsException(error, text); });
  };
  EXPECT_EQ(system(EACCES, "the name already exists"), OperationResult::PermissionDenied);
  EXPECT_EQ(system(ENOTEMPTY, ""), OperationResult::DirectoryIsNotEmpty);
  EXPECT_EQ(system(EDEADLK, "the name already exists"), OperationResult::FileExist);
  EXPECT_EQ(system(EDEADLK, ""), OperationResult::HardwareIoError);
  EXPECT_EQ(statusOf([] { throw OutOfSpaceNfsException("full"); }),
            OperationResult::NoSpaceLeftOnDevice);
  EXPECT_EQ(statusOf([] { throw OutOfSpaceNfsException("full", EDQUOT); }),
            OperationResult::ResourceHardLimitExceeded);
  EXPECT_EQ(statusOf([] { throw std::system_error(EROFS, std::system_category()); }),
            OperationResult::ReadOnlyFileSystem);
  EXPECT_EQ(statusOf([] { throw UnknownHandle(""); }), OperationResult::InvalidFileHandle);
  EXPECT_EQ(statusOf([] { throw NfsOperationError(OperationResult::NotSync); }),
            OperationResult::NotSync);
  EXPECT_EQ(statusOf([] { throw INfsException("the directory is not empty"); }),
            OperationResult::DirectoryIsNotEmpty);
  EXPECT_EQ(statusOf([] { throw std::runtime_error("who knows"); }),
            OperationResult::HardwareIoError);
}

TEST(HostFailureTest, LooksForTheCauseInside) {
  const auto nest = [](const std::function<void()>& cause) {
    try {
      cause();
    } catch (...) {
      std::throw_with_nested(std::runtime_error("no attributes"));
    }
  };
  EXPECT_EQ(statusOf([&] { nest([] { throw SystemNfsException(ENOENT, ""); }); }),
            OperationResult::NoEntry);
  EXPECT_EQ(statusOf([&] { nest([] { throw 7; }); }), OperationResult::HardwareIoError);
}

TEST(HostFailureTest, TheClassicProfileKeepsItsOwnStatuses) {
  const auto status = [](bool isModern, const std::function<void()>& call) {
    return statusOfHostCall({.isModern = isModern}, call,
                            [](std::string_view) { return OperationResult::NoEntry; });
  };
  const auto quota = [] { throw OutOfSpaceNfsException("full", EDQUOT); };
  const auto refusal = [] { throw SystemNfsException(EACCES, "not yours"); };
  EXPECT_EQ(status(false, quota), OperationResult::NoSpaceLeftOnDevice);
  EXPECT_EQ(status(true, quota), OperationResult::ResourceHardLimitExceeded);
  EXPECT_EQ(status(false, refusal), OperationResult::NoEntry);
  EXPECT_EQ(status(true, refusal), OperationResult::PermissionDenied);
  EXPECT_EQ(status(true, [] {}), OperationResult::OK);
}

}  // namespace
}  // namespace nfslib
