#pragma once

#include <nfslib/file_system.h>

#include "common/credential.h"
#include "common/memory_stream.h"

#include <cstdint>
#include <memory>

namespace nfslib {
class NfsFileSystem;
class NfsService;
}  // namespace nfslib

// The procedures of NFS version 3. Each decodes its arguments from the stream and writes its whole
// result, status first. They keep no state and may run in many threads at once.
//
// What a missing object or a failing host throws passes out of them, and the program turns it into
// the reply that is due; only those that change the tree answer some of the host's failures
// themselves.

namespace nfslib::nfs3::procedures {

// GETATTR (1), RFC 1813 section 3.3.1
struct CGetAttributes {
  static void execute(MemoryStream& stream, NfsService& service);
};

// SETATTR (2), section 3.3.2
struct CSetAttributes {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// LOOKUP (3), section 3.3.3
struct CLookupObject {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// ACCESS (4), section 3.3.4. Rights that lead to a change are granted on writable exports only; in
// the classic profile that of execution, too.
struct CCheckAccess {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller,
                      bool writeEnabled);
};

// READLINK (5), section 3.3.5
struct CReadLink {
  static void execute(MemoryStream& stream, NfsService& service);
};

// READ (6), section 3.3.6
struct CReadFile {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// WRITE (7), section 3.3.7
struct CWriteFile {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// CREATE (8), section 3.3.8
struct CCreateFile {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// MKDIR (9), section 3.3.9
struct CMakeDirectory {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// SYMLINK (10), section 3.3.10
struct CSymlink {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// REMOVE (12), section 3.3.12
struct CRemoveFile {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// RMDIR (13), section 3.3.13, in remove_file.cpp
struct CRemoveDirectory {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// RENAME (14), section 3.3.14
struct CRename {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// LINK (15), section 3.3.15
struct CLink {
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
};

// READDIR (16), section 3.3.16, and READDIRPLUS (17), section 3.3.17. Cookies
// are numbered by the view.
class CReadDirectory {
 public:
  static void execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller);
  static void executeExtended(MemoryStream& stream, NfsService& service,
                              const rpc::AuthOpaque& caller);

 private:
  struct Listing;  // one call's directory and where in it to go on

  static Listing readListing(MemoryStream& stream, NfsService& service);
  static void requireRight(const Listing& listing, const rpc::AuthOpaque& caller);
  template <class WriteExtra>
  static void list(MemoryStream& stream, const Listing& listing, unsigned limit, unsigned extraSize,
                   const WriteExtra& writeExtra);
  template <class Write>
  static bool writeSelfAndParent(const Listing& listing, const Write& write);
};

// FSSTAT (18), section 3.3.18
struct CGetDynamicFsInfo {
  static void execute(MemoryStream& stream, NfsService& service);
};

// FSINFO (19), section 3.3.19
struct CGetStaticFsInfo {
  static void execute(MemoryStream& stream, NfsService& service);
};

// PATHCONF (20), section 3.3.20
struct CGetPathConfiguration {
  static void execute(MemoryStream& stream, NfsService& service);
};

// COMMIT (21), section 3.3.21
struct CCommit {
  static void execute(MemoryStream& stream, NfsService& service);
};

}  // namespace nfslib::nfs3::procedures
