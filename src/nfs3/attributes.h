#pragma once

#include <nfslib/metadata.h>

#include "common/memory_stream.h"
#include "common/nfs_handle.h"
#include "common/permission.h"

#include <cstdint>
#include <optional>

namespace nfslib {
class NfsFileSystem;
}

namespace nfslib::nfs3 {

// The attributes of one object, RFC 1813 section 2.6. Fields in wire order; what is not a field
// here (rdev, nanoseconds but those of ctime) is zero on the wire.
struct fattr3 {
  std::uint32_t type = 0;  // ftype3
  std::uint32_t mode = 0;
  std::uint32_t linkCount = 0;  // nlink
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::uint64_t size = 0;
  std::uint64_t used = 0;
  std::uint64_t fileSystemId = 0;  // fsid
  std::uint64_t fileId = 0;
  std::uint32_t accessTime = 0;  // atime, seconds
  std::uint32_t modifyTime = 0;  // mtime, seconds
  std::uint32_t changeTime = 0;  // ctime, seconds
  std::uint32_t changeNanoseconds = 0;
};

// post_op_attr. The attributes are always at hand, so they always follow.
struct PostOpAttr {
  fattr3 attributes;
};

// pre_op_attr: what of the attributes before a change tells a client whether others changed the
// object too.
struct PreOpAttr {
  std::uint64_t size = 0;
  std::uint32_t modifyTime = 0;  // seconds
  std::uint32_t changeTime = 0;  // seconds
  std::uint32_t changeNanoseconds = 0;

  explicit PreOpAttr(const fattr3& before)
      : size(before.size),
        modifyTime(before.modifyTime),
        changeTime(before.changeTime),
        changeNanoseconds(before.changeNanoseconds) {}
};

// wcc_data
struct WccData {
  PreOpAttr before;
  PostOpAttr after;
};

// post_op_fh3
struct PostOpHandle {
  NfsHandle handle;
};

MemoryStream& operator<<(MemoryStream& out, const fattr3& value);
MemoryStream& operator<<(MemoryStream& out, const PostOpAttr& value);
MemoryStream& operator<<(MemoryStream& out, const PreOpAttr& value);
MemoryStream& operator<<(MemoryStream& out, const WccData& value);
MemoryStream& operator<<(MemoryStream& out, const PostOpHandle& value);

// sattr3: the attributes that a client sets, those that it names.
struct SetAttributes3 {
  // time_how, RFC 1813 section 2.6
  enum class TimeHow : std::uint32_t { DontChange = 0, ToServerTime = 1, ToClientTime = 2 };
  struct SetTime {
    TimeHow how = TimeHow::DontChange;
    std::uint32_t seconds = 0;  // the client's
  };

  std::optional<std::uint32_t> mode;
  std::optional<std::uint32_t> uid;
  std::optional<std::uint32_t> gid;
  std::optional<std::uint64_t> size;
  SetTime accessTime;  // atime
  SetTime modifyTime;  // mtime

  // Throws std::runtime_error when the server's time is wanted and does not fit.
  void applyTo(MetaData& md) const;
  // Whether the size is set, and the modification time is not.
  bool resizesAlone() const { return size && modifyTime.how == TimeHow::DontChange; }
  // What of it takes a right.
  nfslib::utility::AttributeChange change() const;
};

// A time_how that does not exist marks the stream failed.
MemoryStream& operator>>(MemoryStream& in, SetAttributes3& value);

namespace procedures::utility {

// What `md` says of the object that `handle` names; the identities come from the handle.
fattr3 getAttributes(const NfsHandle& handle, const MetaData& md);
// The same as the view's clients are to see it. For `md` from before a change to be called before
// it.
fattr3 getAttributes(const NfsFileSystem& view, const NfsHandle& handle, const MetaData& md);

}  // namespace procedures::utility

}  // namespace nfslib::nfs3
