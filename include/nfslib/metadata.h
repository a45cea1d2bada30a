#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nfslib {

/// One access-control entry: nfsace4 of RFC 7530 section 6.2.1.
struct NfsAce4 {
  std::uint32_t type = 0;        ///< ACE type (allow, deny, audit, alarm)
  std::uint32_t flag = 0;        ///< ACE flags (inheritance, group principal)
  std::uint32_t accessMask = 0;  ///< the rights that the entry speaks of
  std::string who;               ///< the principal, "OWNER@" or "name@domain"

  /// Equal in every field.
  bool operator==(const NfsAce4&) const = default;
};

/// The attributes of one object. A plain value; every number is what goes on the wire.
///
/// Times are whole seconds since 1970-01-01 UTC.
struct MetaData {
  /// Object type, numbered as ftype3 of RFC 1813: see `FileType`.
  std::uint32_t type = 0;
  /// The object's identity: unique in its file system, never 0, the same for the object's whole
  /// life. File handles are made from it, and open handles are found by its low 32 bits: let those
  /// differ too.
  std::uint64_t fileId = 0;
  std::uint64_t size = 0;        ///< bytes; also reported as the space used
  std::uint32_t linkCount = 0;   ///< number of names (hard links)
  std::uint32_t uid = 0;         ///< numeric owner
  std::uint32_t gid = 0;         ///< numeric group
  std::uint32_t accessTime = 0;  ///< last access
  std::uint32_t changeTime = 0;  ///< last change of the attributes
  /// Last change of the data; also the change attribute of NFS version 4, so it must move whenever
  /// the content of a file or the entries of a directory do.
  std::uint32_t modifyTime = 0;
  std::uint16_t mode = 0;      ///< permission bits, the low 12 as in POSIX
  std::vector<NfsAce4> acl{};  ///< access-control list; may be empty

  /// Equal in every field.
  bool operator==(const MetaData&) const = default;
};

/// The values of `MetaData::type` (ftype3 of RFC 1813 section 2.5.5, nfs_ftype4 of RFC 7530).
enum class FileType : std::uint32_t {
  Regular = 1,
  Directory = 2,
  BlockDevice = 3,
  CharacterDevice = 4,
  SymbolicLink = 5,
  Socket = 6,
  NamedPipe = 7,
};

/// Whether `md` describes an object of type `type`.
inline bool isType(const MetaData& md, FileType type) {
  return md.type == static_cast<std::uint32_t>(type);
}

/// A name in a directory and the attributes of the object that it names.
struct DirEntry {
  std::string name;   ///< one path component: never empty, without "/"
  MetaData metaData;  ///< of the object, whatever its other names are
};

}  // namespace nfslib
