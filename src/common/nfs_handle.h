#pragma once

#include <cstdint>
#include <string>

namespace nfslib {

// The NFS file handle: 16 bytes, sent as they stand in memory. Opaque to clients; only the server
// that issued it reads the fields.
struct NfsHandle {
  std::uint32_t generation =
      0;  // the server start that issued it; 0 in a handle that was never set
  std::uint32_t fileSystemId = 0;  // number of the export, from 1
  std::uint64_t objectId = 0;      // MetaData::fileId of the object

  bool operator==(const NfsHandle&) const = default;
};
static_assert(sizeof(NfsHandle) == 16);

// The form for log lines: the three fields in decimal, for example 1700000000:1:2.
inline std::string str(const NfsHandle& handle) {
  return std::to_string(handle.generation) + ":" + std::to_string(handle.fileSystemId) + ":" +
         std::to_string(handle.objectId);
}

}  // namespace nfslib
