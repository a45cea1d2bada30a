#pragma once

#include <nfslib/file_system.h>
#include <nfslib/metadata.h>
#include <nfslib/nfs_path.h>

#include "common/credential.h"
#include "common/log.h"
#include "common/permission.h"
#include "common/profile.h"
#include "fs/nfs_file_system.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "server/nfs_service.h"

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// What the procedures that change the tree share.

namespace nfslib::nfs3::procedures::utility {

// An object that a call is about to change, with its attributes before that.
class Changing {
 public:
  // Throws as getPath does.
  Changing(const NfsHandle& handle, const NfsService& service);

  const NfsHandle& handle() const { return m_handle; }
  const Profile& profile() const { return m_profile; }
  NfsFileSystem& view() const { return *m_view; }
  const NfsPath& path() const { return m_path; }
  const MetaData& metaData() const { return m_md; }
  const fattr3& before() const { return m_before; }
  nfslib::utility::Permission permission(const rpc::AuthOpaque& caller) const;

  // With the attributes of now behind those from before.
  WccData wccData() const;

 private:
  Changing(const NfsHandle& handle, ViewAndPath found, const Profile& profile);

  const Profile& m_profile;
  NfsHandle m_handle;
  std::shared_ptr<NfsFileSystem> m_view;
  NfsPath m_path;
  MetaData m_md;
  fattr3 m_before;
};

// CREATE, MKDIR and SYMLINK from the debug line on: `make` creates the entry `name` in the host's
// directory and returns the attributes of what it made. The reply is written here. In the classic
// profile a refusal means FileExist, after `tell` has logged why.
void create(MemoryStream& stream, const Changing& dir, const std::string& name,
            const std::function<MetaData(Directory&)>& make,
            const std::function<void(std::string_view)>& tell);

using nfslib::utility::Owner;
using nfslib::utility::Permission;

// To be called before the caller makes an object in `dir`. Returns who is to own it, nobody where
// the host decides. Throws NfsOperationError when the caller may not; takes from `wanted` what
// nobody gets.
std::optional<Owner> admitNew(const Changing& dir, const rpc::AuthOpaque& caller,
                              SetAttributes3& wanted);

// Gives a fresh object to `owner`, and leaves it to whom the host gave it when the host refuses.
template <class Object>
void giveTo(const Owner& owner, Object& object) {
  MetaData md = object.GetMetaData();
  if (md.uid == owner.uid && md.gid == owner.gid) return;
  md.uid = owner.uid;
  md.gid = owner.gid;
  try {
    object.SetMetaData(md);
  } catch (const std::exception& e) {
    log().dbg("A fresh object keeps the owner that the host gave it: [%1]", e.what());
  }
}

// Sets what the client wants of a file, directory or symbolic link that was just made, and returns
// its attributes with that.
template <class Object>
MetaData withAttributes(Object& object, const SetAttributes3& wanted,
                        const std::optional<Owner>& owner) {
  if (owner) giveTo(*owner, object);
  MetaData md = object.GetMetaData();
  wanted.applyTo(md);
  object.SetMetaData(md);
  // The host moved times as well.
  return owner ? object.GetMetaData() : md;
}

}  // namespace nfslib::nfs3::procedures::utility
