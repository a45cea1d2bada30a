#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/types.h>

namespace nfslib::network {

// Sends up to `length` bytes of the file from `offset` on to the socket, without a copy in this
// process. Returns their number, 0 at the end of the file, or -1 with errno; ENOSYS where the
// system cannot. A peer that is gone raises no signal.
ssize_t sendFile(int socket, int file, std::uint64_t offset, std::size_t length);

}  // namespace nfslib::network
