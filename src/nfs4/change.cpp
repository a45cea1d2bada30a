#include "nfs4/change.h"

#include "common/clock.h"

namespace nfslib::nfs4 {

using nfs::OperationResult;

Bitmap applyAttributes(Nfs4Session::FileSystemObject& object, const Nfs4SetAttributes& values) {
  // From the host: attributes that were kept for a while might be older than what others have
  // written, and setting them would undo it.
  MetaData md = object.fileSystem->readMetaData(object.path);
  Bitmap applied = setAttributes(values, md);
  object.fileSystem->setMetaData(object.path, md);
  // The change moved times as well; whoever asks next gets those.
  object.fileSystem->dropMetaData(object.path);
  object.metaData = std::move(md);
  return applied;
}

void ChangedDirectory::touch() {
  m_object.metaData.changeTime = m_object.metaData.modifyTime = utility::currentSeconds();
}

ChangeInfo ChangedDirectory::info() const {
  return {.atomic = false, .before = m_before, .after = utility::currentSeconds()};
}

OperationResult statusOfCreation(std::string_view why) {
  return why.find("already exists") != why.npos ? OperationResult::FileExist
                                                : OperationResult::HardwareIoError;
}

}  // namespace nfslib::nfs4
