#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

// What this machine has mounted through the tool, and what it has mounted at all.

namespace nfslib::tool {

struct MountRecord {
  std::string source;
  std::string mountPoint;  // absolute
  unsigned version = 0;    // of NFS
  pid_t pid = 0;
  std::string alias;      // the address that was added for it, if any
  bool isServed = false;  // the process is there; if not, the mount is a remnant
  std::string file;       // where this stands
};

// Keeps a record for as long as it lives, which also tells others that the process is there: the
// file is locked, and no lock outlives its process.
class RecordedMount {
 public:
  // Throws std::runtime_error when the record cannot be kept.
  explicit RecordedMount(const MountRecord& record);
  ~RecordedMount();
  RecordedMount(const RecordedMount&) = delete;
  RecordedMount& operator=(const RecordedMount&) = delete;

 private:
  std::string m_file;
  int m_descriptor;
};

// By mount point; those of processes that are gone are among them.
std::vector<MountRecord> recordedMounts();

// Whether something is mounted on the directory. Never touches it: a mount without its server would
// make us wait for it.
bool isMountPoint(const std::string& absolutePath);

// The path without links. What it leads to is not looked at. Throws std::runtime_error for a link
// that leads nowhere but to itself.
std::string absoluteMountPoint(const std::string& mountPoint);

}  // namespace nfslib::tool
