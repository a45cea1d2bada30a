#pragma once

#include <nfslib/file_system.h>
#include <nfslib/metadata.h>
#include <nfslib/nfs_path.h>

#include "fs/nfs_file_system.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "server/nfs_service.h"

#include <functional>
#include <memory>
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
  NfsFileSystem& view() const { return *m_view; }
  const NfsPath& path() const { return m_path; }

  // With the attributes of now behind those from before.
  WccData wccData() const;

 private:
  Changing(const NfsHandle& handle, ViewAndPath found);

  NfsHandle m_handle;
  std::shared_ptr<NfsFileSystem> m_view;
  NfsPath m_path;
  MetaData m_before;
};

// CREATE, MKDIR and SYMLINK from the debug line on: `make` creates the entry `name` in the host's
// directory and returns the attributes of what it made. The reply is written here. A refusal means
// FileExist, after `tell` has logged why.
void create(MemoryStream& stream, const Changing& dir, const std::string& name,
            const std::function<MetaData(Directory&)>& make,
            const std::function<void(std::string_view)>& tell);

// Sets what the client wants of a file, directory or symbolic link that was just made, and returns
// its attributes with that.
template <class Object>
MetaData withAttributes(Object& object, const SetAttributes3& wanted) {
  MetaData md = object.GetMetaData();
  wanted.applyTo(md);
  object.SetMetaData(md);
  return md;
}

}  // namespace nfslib::nfs3::procedures::utility
