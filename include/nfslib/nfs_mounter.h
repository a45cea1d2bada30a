#pragma once

#include <nfslib/export.h>
#include <nfslib/log.h>
#include <nfslib/nfs_mount_spec.h>

#include <memory>
#include <string>

namespace nfslib {

class FileSystem;

/// A host's tree as a local directory, for as long as this object lives.
///
///     {
///       NfsMounter mounter("/mnt/backup", tree, spec, std::make_unique<MyLog>());
///       // /mnt/backup shows the tree to every program of the machine
///     }
///     // and now it does not any more
///
/// The tree is exported under a path of its own, unguessable and new each time, by the server of
/// this process (`NfsServer`), and mounted by the NFS client of the system. Mounting needs the
/// privilege to mount, and for version 3 the one to serve port 111: in general, root.
///
/// There may be several at once, each with its own mount point; they share the server, whose ports,
/// version and protocol are those that the first one asked for. They also share the log: the newest
/// one's sink is in use, and the end of any of them removes it. Do not construct or destroy two of
/// them at the same time.
///
/// Do not destroy one, or the tree, from a call that the library makes into the tree. A thread that
/// uses files below the mount point must not be the one that destroys it: files that are open there
/// turn stale.
class NFSLIB_EXPORT NfsMounter {
 public:
  /// Exports `fs` and mounts it on `mountPoint`, an existing directory; a relative path is taken
  /// from the current directory of now and of the destructor. `fs` is used, not owned: keep it
  /// alive until the destructor has returned. `logSection` gets the library's lines from here on;
  /// an empty pointer drops them.
  ///
  /// When NFS version 4 is asked for and cannot be mounted, the server is restarted with version 3
  /// and that is mounted instead; the log gets a session warning.
  ///
  /// Throws std::runtime_error whose text names the step that failed; then nothing is left behind:
  /// no mount, no export, no thread, no address.
  NfsMounter(const std::string& mountPoint, FileSystem& fs, const NfsMountSpec& spec,
             std::unique_ptr<INfsLibLogSection> logSection);
  /// Unmounts, also while somebody uses the directory, and withdraws the export; the server stops
  /// with the last one. Failures go to the log.
  ~NfsMounter();

  NfsMounter(const NfsMounter&) = delete;
  NfsMounter& operator=(const NfsMounter&) = delete;

 private:
  const std::string m_mountPoint;
  const std::string m_exportName;
  const bool m_skipAddressAlias;
};

}  // namespace nfslib
