#pragma once

#include <nfslib/file_system.h>
#include <nfslib/metadata.h>

#include "common/memory_stream.h"
#include "common/nfs_handle.h"
#include "common/profile.h"
#include "common/status.h"
#include "common/xdr_records.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The attributes of version 4 (RFC 7530 section 5): which there are, how each is computed, encoded,
// decoded, set and compared. A table of the profile has a row for each; everything here walks it.

namespace nfslib {
class NfsFileSystem;
}

namespace nfslib::nfs4 {

class AttributeTable;
const AttributeTable& attributeTable(const Profile& profile, unsigned minorVersion);

// The object whose attributes are asked for, for as long as that takes.
struct ShownObject {
  static constexpr Profile kClassic{};

  const NfsHandle& handle;
  const MetaData& md;
  const NfsFileSystem* view = nullptr;  // none for the pseudo-root
  const Profile& profile = kClassic;
  unsigned minorVersion = 0;
  bool isExportRoot = false;  // so the pseudo-root has a place for it

  // Those of the view, asked for once.
  const std::optional<FileSystemStatistics>& statistics() const;
  mutable std::optional<std::optional<FileSystemStatistics>> told{};
};

// bitmap4: attribute n is bit n % 32 of word n / 32.
using Bitmap = std::vector<unsigned int>;
std::string bitmap4ToStr(const Bitmap& bitmap);

// fattr4 as a client sends it: the values that were there.
struct Nfs4SetAttributes {
  std::optional<Bitmap> supportedAttributes;
  std::optional<std::uint32_t> type;
  std::optional<std::uint32_t> handleExpireType;
  std::optional<std::uint64_t> change;
  std::optional<std::uint64_t> size;
  std::optional<bool> linkSupport;
  std::optional<bool> symlinkSupport;
  std::optional<bool> namedAttributes;
  std::optional<FilesystemId> fileSystemId;
  std::optional<bool> uniqueHandles;
  std::optional<std::uint32_t> leaseTime;
  std::optional<std::uint32_t> readAttributeError;
  std::optional<std::vector<NfsAce4>> acl;
  std::optional<std::uint32_t> aclSupport;
  std::optional<bool> canSetTime;
  std::optional<bool> casePreserving;
  std::optional<NfsHandle> handle;
  std::optional<std::uint64_t> fileId;
  std::optional<bool> homogeneous;
  std::optional<std::uint64_t> maxFileSize;
  std::optional<std::uint32_t> maxName;
  std::optional<std::uint64_t> maxRead;
  std::optional<std::uint64_t> maxWrite;
  std::optional<std::uint32_t> mode;
  std::optional<bool> noTruncation;
  std::optional<std::uint32_t> linkCount;
  std::optional<std::string> owner;
  std::optional<std::string> ownerGroup;
  std::optional<nfstime4> timeAccess;  // time_access, and time_access_set
  std::optional<nfstime4> timeMetaData;
  std::optional<nfstime4> timeModify;  // time_modify, and time_modify_set
  std::optional<std::uint64_t> mountedOnFileId;
  std::optional<Bitmap> supportedExclusiveCreate;
  // Of those that this server gives and nobody sets, whose value is not compared.
  std::uint64_t number = 0;
  bool flag = false;
  bool unknownOwner = false;  // one of the two owners is nobody's name here
  bool setsTimeOfServer = false;
  bool setsTimeOfClient = false;
};

// ---- What an object has

// One value; nothing for an attribute that has none.
void printAttributeValue(MemoryStream& out, unsigned attribute, const ShownObject& object);
// fattr4 with those of the requested attributes that can be read and that the object has. The
// others are left out.
void printAttributes(MemoryStream& out, const Bitmap& requested, const ShownObject& object);
// Whether every bit is an attribute that can be read.
bool areReadable(const Bitmap& bitmap, const AttributeTable& table);

// ---- What a client sends

// settime4: the client's time, or the server's of now. Notes in `values` which.
nfstime4 readSetTime(MemoryStream& in, Nfs4SetAttributes& values);
void readAttributeValue(MemoryStream& in, unsigned attribute, Nfs4SetAttributes& values);
// The values of a fattr4 whose bitmap was read already. A bit of an attribute that cannot be set
// makes `status` AttributeNotSupported, an owner that nobody knows BadOwner; what can be set is
// decoded all the same.
Nfs4SetAttributes readWritableAttributes(
    MemoryStream& in, const Bitmap& bitmap, nfs::OperationResult& status,
    const AttributeTable& table = attributeTable(ShownObject::kClassic, 0));
// The values of all readable attributes of the bitmap, for a comparison.
Nfs4SetAttributes readReadableAttributes(MemoryStream& in, const Bitmap& bitmap,
                                         const AttributeTable& table);
// Applies what can be set, and returns the bitmap of that, without empty words at its end.
Bitmap setAttributes(const Nfs4SetAttributes& values, MetaData& md,
                     const AttributeTable& table = attributeTable(ShownObject::kClassic, 0));
// In the order of their numbers: NotSame at the first that the object does not have,
// InvalidArgument at rdattr_error, which nobody can compare; OK when there is neither.
nfs::OperationResult compareAttributes(const Nfs4SetAttributes& values, const ShownObject& object);

}  // namespace nfslib::nfs4
