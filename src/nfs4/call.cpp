#include "nfs4/call.h"

#include "nfs4/hexadecimal.h"

namespace nfslib::nfs4 {

using nfs::OperationResult;
using Object = Nfs4Session::FileSystemObject;

OperationResult statusUnlessSet(const Object& object) {
  return object.isSet() ? OperationResult::OK : OperationResult::NoFileHandle;
}

OperationResult statusUnlessDirectory(const Object& object) {
  if (!object.isSet()) return OperationResult::NoFileHandle;
  return isType(object.metaData, FileType::Directory) ? OperationResult::OK
                                                      : OperationResult::NotDirectory;
}

OperationResult statusUnlessFile(const Object& object) {
  if (!object.isSet()) return OperationResult::NoFileHandle;
  if (isType(object.metaData, FileType::Directory)) return OperationResult::IsDirectory;
  if (isType(object.metaData, FileType::SymbolicLink)) return OperationResult::SymbolicLink;
  return isType(object.metaData, FileType::Regular) ? OperationResult::OK
                                                    : OperationResult::WrongType;
}

OperationResult statusUnlessChangeable(const Object& object) {
  if (!object.isSet()) return OperationResult::NoFileHandle;
  return object.isPseudoRoot() ? OperationResult::ReadOnlyFileSystem : OperationResult::OK;
}

OperationResult statusOfStateId(const Object& object, const FsObjectStateId& stateId) {
  constexpr std::uint32_t kOpened = 0;
  const std::uint32_t recorded = object.stateSequenceId;
  if (recorded == kOpened || recorded == kClosedSequenceId || recorded == stateId.sequenceId) {
    return OperationResult::OK;
  }
  return stateId.sequenceId < recorded ? OperationResult::OldStateId : OperationResult::BadStateId;
}

OperationResult statusIfFull(const Call& call, unsigned statusPosition) {
  if (call.stream.outputSpace() >= kReservedSpace) return OperationResult::OK;
  const bool hasLimits = call.flow.session && call.session().foreChannel().maxRequestSize != 0;
  const auto status = hasLimits ? OperationResult::ReplyTooBig : OperationResult::Resource;
  call.stream.seekOutput(statusPosition, SeekOrigin::Begin);
  call.stream << status;
  call.stream.truncateOutput();
  return status;
}

std::string textOf(const FsObjectStateId& stateId) {
  return "Sequence ID (" + std::to_string(stateId.sequenceId) + "), other (" +
         hexadecimal(stateId.other.bytes) + ")";
}

}  // namespace nfslib::nfs4
