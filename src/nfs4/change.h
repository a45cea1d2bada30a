#pragma once

#include "common/host_failure.h"
#include "nfs4/attributes.h"
#include "nfs4/call.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

// What the operations that change the tree share.

namespace nfslib::nfs4 {

constexpr std::size_t kMostWords = 2;  // of a bitmap that is to be set

// Sets what the client wants of the current object, and returns what that was. The object then has
// the attributes that clients are to see.
Bitmap applyAttributes(const Call& call, const Nfs4SetAttributes& values);

// Gives the current object, which the caller has just made in a directory with those attributes, to
// the caller, where the profile has it so and the host lets it.
void giveToCaller(const Call& call, const MetaData& directory);

// A directory whose entries an operation changes, with its change attribute from before. The
// session's object may become another one meanwhile.
class ChangedDirectory {
 public:
  explicit ChangedDirectory(Nfs4Session::FileSystemObject& object);

  // Gives the session's object, which still is the directory and which a client may ask for its
  // attributes, those of after the change.
  void touch();
  // From before and after.
  ChangeInfo info() const;

  // Whether `info` is the directory's change attribute, and not the time alone.
  bool countsChanges() const;

 private:
  Nfs4Session::FileSystemObject& m_object;
  const std::shared_ptr<NfsFileSystem> m_view;  // empty for the pseudo-root, which nobody changes
  const NfsPath m_path;
  const std::uint64_t m_before;
};

// AlreadyExists by the words of the host's exception, else HardwareIoError.
nfs::OperationResult statusOfCreation(std::string_view why);

}  // namespace nfslib::nfs4
