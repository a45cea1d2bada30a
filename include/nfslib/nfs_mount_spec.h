#pragma once

#include <cstdint>

namespace nfslib {

/// How a tree is to be served and mounted. A plain value; hosts compile against its layout, so the
/// order and the widths of the fields are fixed.
struct NfsMountSpec {
  /// Transport of an NFS version 3 service. The names are those of the mount option proto=.
  enum class Protocol : std::uint32_t { udp = 0, tcp = 1 };

  /// Port wanted for the MOUNT program, at most 65535. 0 searches a free one from 33050 upward.
  std::uint64_t useMountPort = 0;
  /// Port wanted for the NFS program, at most 65535. 0 searches a free one from 33049 upward.
  std::uint64_t useNfsPort = 0;
  /// Each export keeps up to twice this many host files open. At least 1.
  std::uint32_t maxOpenFiles = 1;
  /// Clients may change the tree.
  bool writeEnabled = false;
  /// What version 3 of NFS is served over; version 4 is served over TCP.
  Protocol protocol = Protocol::tcp;
  /// NFS version to serve: 3, or 4 for 4.0 and 4.1.
  std::uint32_t version = 3;
  /// Bytes a client of the local mount asks for in one READ (option rsize=).
  std::uint32_t rsize = 65536;
  /// The Unix group whose members may call the NFS and MOUNT programs; 0 for none. Uid 0 always
  /// may.
  std::int32_t allowedGroupId = 0;
  /// False with version 3: the server takes a loopback address of its own (127.127.x.y) and gives
  /// it back when it stops, which needs privilege. True, or version 4: it serves on 127.0.0.1.
  bool skipAddressAlias = false;
};

}  // namespace nfslib
