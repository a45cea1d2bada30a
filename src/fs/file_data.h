#pragma once

#include <nfslib/file_system.h>

#include "common/memory_stream.h"

#include <cstdint>
#include <memory>

namespace nfslib {

// Whether bytes of a reply may be sent from a file, without being in the stream.
enum class SendFromFile { Allowed, Forbidden };

// Writes the `length` bytes of the file from `offset` on as a counted opaque; `file` may be empty
// when there are none. A large part goes from the host's file to the client without passing through
// here, if the host and the transport have it so. Else the host puts the bytes where they are sent
// from; those that it leaves alone are zeros.
void writeFileData(MemoryStream& out, const std::shared_ptr<File>& file, std::uint64_t offset,
                   unsigned length, SendFromFile fromFile);

}  // namespace nfslib
