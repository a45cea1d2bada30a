#pragma once

#include "common/host_failure.h"
#include "nfs4/attributes.h"
#include "nfs4/call.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

// What the operations that change the tree share.

namespace nfslib::nfs4 {

constexpr std::size_t kMostWords = 2;  // of a bitmap that is to be set

// Sets what the client wants of the object, and returns what that was. The object then has the
// attributes as set.
Bitmap applyAttributes(Nfs4Session::FileSystemObject& object, const Nfs4SetAttributes& values);

// A directory whose entries an operation changes, with its modification time from before.
class ChangedDirectory {
 public:
  explicit ChangedDirectory(Nfs4Session::FileSystemObject& object)
      : m_object(object), m_before(object.metaData.modifyTime) {}

  // Gives the session's object, which a client may ask for its attributes, the time of the change.
  void touch();
  // From before and after.
  ChangeInfo info() const;

 private:
  Nfs4Session::FileSystemObject& m_object;
  const std::uint32_t m_before;
};

// AlreadyExists by the words of the host's exception, else HardwareIoError.
nfs::OperationResult statusOfCreation(std::string_view why);

}  // namespace nfslib::nfs4
