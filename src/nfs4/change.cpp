#include "nfs4/change.h"

#include "common/clock.h"
#include "common/permission.h"
#include "nfs4/rights.h"

#include <exception>

namespace nfslib::nfs4 {

using nfs::OperationResult;

Bitmap applyAttributes(const Call& call, const Nfs4SetAttributes& values) {
  Nfs4Session::FileSystemObject& object = call.current();
  NfsFileSystem& view = *object.fileSystem;
  // From the host: attributes that were kept for a while might be older than what others have
  // written, and setting them would undo it.
  MetaData md = view.readMetaData(object.path);
  const MetaData unchanged = md;
  Bitmap applied = setAttributes(values, md, attributeTable(call));
  permission(call).settleMode(unchanged, md, values.mode.has_value());
  view.setMetaData(object.path, md);
  // The change moved times as well; whoever asks next gets those.
  view.dropMetaData(object.path);
  object.metaData = values.size && !values.timeModify
                        ? view.shownAfterResize(object.path, md, unchanged.modifyTime)
                        : view.shownAfterChange(object.path, md);
  return applied;
}

void giveToCaller(const Call& call, const MetaData& directory) {
  const auto owner =
      utility::ownerOfNew(call.service.profile(), directory.mode, directory.gid, call.caller);
  if (!owner) return;
  Nfs4Session::FileSystemObject& object = call.current();
  NfsFileSystem& view = *object.fileSystem;
  MetaData md = view.readMetaData(object.path);
  if (md.uid == owner->uid && md.gid == owner->gid) return;
  md.uid = owner->uid;
  md.gid = owner->gid;
  try {
    view.setMetaData(object.path, md);
  } catch (const std::exception& e) {
    log().dbg("A fresh object keeps the owner that the host gave it: [%1]", e.what());
  }
  object.metaData = view.readMetaData(object.path);
}

ChangedDirectory::ChangedDirectory(Nfs4Session::FileSystemObject& object)
    : m_object(object),
      m_view(object.fileSystem),
      m_path(object.path),
      m_before(m_view ? m_view->changeOf(object.metaData) : object.metaData.modifyTime) {}

bool ChangedDirectory::countsChanges() const { return m_view && m_view->profile().countsChanges; }

void ChangedDirectory::touch() {
  if (countsChanges()) {
    m_object.metaData = m_view->readMetaData(m_path);
  } else {
    m_object.metaData.changeTime = m_object.metaData.modifyTime = utility::currentSeconds();
  }
}

ChangeInfo ChangedDirectory::info() const {
  // Where the host makes the time, it is asked for it.
  const std::uint64_t after =
      countsChanges() ? m_view->changeOf(m_view->getMetaData(m_path)) : utility::currentSeconds();
  return {.atomic = false, .before = m_before, .after = after};
}

OperationResult statusOfCreation(std::string_view why) {
  return why.find("already exists") != why.npos ? OperationResult::FileExist
                                                : OperationResult::HardwareIoError;
}

}  // namespace nfslib::nfs4
