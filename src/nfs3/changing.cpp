#include "nfs3/changing.h"

#include "common/host_failure.h"
#include "common/xdr_records.h"
#include "fs/entry_name.h"
#include "fs/entry_rights.h"

#include <utility>

namespace nfslib::nfs3::procedures::utility {

using nfs::OperationResult;

Changing::Changing(const NfsHandle& handle, const NfsService& service)
    : Changing(handle, getPath(handle, service), service.profile()) {}

Changing::Changing(const NfsHandle& handle, ViewAndPath found, const Profile& profile)
    : m_profile(profile),
      m_handle(handle),
      m_view(std::move(found.first)),
      m_path(std::move(found.second)),
      m_md(m_view->getMetaData(m_path)),
      m_before(getAttributes(*m_view, m_handle, m_md)) {}

Permission Changing::permission(const rpc::AuthOpaque& caller) const {
  return permissionIn(*m_view, caller);
}

WccData Changing::wccData() const {
  return {PreOpAttr(m_before), {getAttributes(*m_view, m_handle, m_view->getMetaData(m_path))}};
}

void create(MemoryStream& stream, const Changing& dir, const std::string& name,
            const std::function<MetaData(Directory&)>& make,
            const std::function<void(std::string_view)>& tell) {
  MetaData md;
  NfsHandle handle;
  const OperationResult status = statusOfHostCall(
      dir.profile(),
      [&] {
        requireEntryName(name);
        md = make(*dir.view().openDirectory(dir.path()));
        md = dir.view().shownAfterChange(dir.path() / name, md);
        handle = dir.view().getHandle(dir.handle(), dir.path() / name, md);
      },
      [&](std::string_view why) {
        tell(why);
        return OperationResult::FileExist;
      });
  const WccData wcc = dir.wccData();

  stream << status;
  if (status == OperationResult::OK) {
    stream << PostOpHandle{handle} << PostOpAttr{getAttributes(dir.view(), handle, md)};
  }
  stream << wcc;
}

std::optional<Owner> admitNew(const Changing& dir, const rpc::AuthOpaque& caller,
                              SetAttributes3& wanted) {
  const Permission permission = dir.permission(caller);
  require(permission.toChangeEntries(dir.path(), dir.metaData()));
  const auto owner =
      nfslib::utility::ownerOfNew(dir.profile(), dir.metaData().mode, dir.metaData().gid, caller);
  if (owner) {
    require(permission.toMake(dir.path(), *owner, wanted.change()));
    MetaData made;
    made.uid = owner->uid;
    made.gid = owner->gid;
    MetaData with = made;
    wanted.applyTo(with);
    permission.settleMode(made, with, wanted.mode.has_value());
    if (wanted.mode) wanted.mode = with.mode;
  }
  return owner;
}

}  // namespace nfslib::nfs3::procedures::utility
