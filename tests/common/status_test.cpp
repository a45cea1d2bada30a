#include "common/status.h"

#include <nfslib/exception.h>

#include <map>
#include <string>

#include <gtest/gtest.h>

namespace nfslib::testing {
namespace {

using nfs::OperationResult;

// nfsstat3 of RFC 1813 section 2.6, with this server's names.
const std::map<unsigned, std::string> kNames{
    {0, "OK"},
    {1, "NotOwner"},
    {2, "NoEntry"},
    {5, "HardwareIoError"},
    {6, "NoSuchDeviceOrAddress"},
    {13, "PermissionDenied"},
    {17, "FileExist"},
    {18, "CrossDeviceHardLink"},
    {19, "NoSuchDevice"},
    {20, "NotDirectory"},
    {21, "IsDirectory"},
    {22, "InvalidArgument"},
    {27, "FileTooLarge"},
    {28, "NoSpaceLeftOnDevice"},
    {30, "ReadOnlyFileSystem"},
    {31, "TooManyHardLinks"},
    {63, "FileNameIsTooLong"},
    {66, "DirectoryIsNotEmpty"},
    {69, "ResourceHardLimitExceeded"},
    {70, "InvalidFileHandle"},
    {71, "TooManyLevelsOfRemote"},
};

TEST(Status, OnlyTheCodesOfBothVersionsHaveNames) {
  for (unsigned value = 0; value < 11000; ++value) {
    const auto named = kNames.find(value);
    const auto result = static_cast<OperationResult>(value);
    const std::string expected = named == kNames.end() ? "" : named->second;
    ASSERT_EQ(nameOf(result), expected) << value;
    ASSERT_STREQ(nfs::NfsOperationError(result).what(), expected.c_str()) << value;
  }
}

// Where the numbering of RFC 5661 section 15.1 has gaps or ends.
TEST(Status, NumbersOfVersion4) {
  EXPECT_EQ(static_cast<unsigned>(OperationResult::NoFileHandle), 10020U);
  EXPECT_EQ(static_cast<unsigned>(OperationResult::OperationIllegal), 10044U);
  EXPECT_EQ(static_cast<unsigned>(OperationResult::HashAlgorithmUnsupported), 10072U);
  EXPECT_EQ(static_cast<unsigned>(OperationResult::ClientIdBusy), 10074U);
  EXPECT_EQ(static_cast<unsigned>(OperationResult::DelegationRevoked), 10087U);
}

TEST(Status, ExceptionsCarryTheirContent) {
  EXPECT_EQ(nfs::NfsOperationError(OperationResult::NoEntry).result(), OperationResult::NoEntry);
  EXPECT_EQ(OperationError(OperationResult::BadSlot).result(), OperationResult::BadSlot);
  try {
    throw OutOfSpaceNfsException("the disk is full");
  } catch (const INfsException& e) {
    EXPECT_STREQ(e.what(), "the disk is full");
  }
}

}  // namespace
}  // namespace nfslib::testing
