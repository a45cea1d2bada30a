#pragma once

#include <cstdint>

// What FSINFO and PATHCONF announce, and what the procedures keep to.

namespace nfslib::nfs3 {

constexpr unsigned kMaxTransfer = 786'432;       // bytes of one READ or WRITE
constexpr unsigned kTransferMultiple = 4096;     // bytes; what a transfer had best be a multiple of
constexpr unsigned kMaxDirectoryReply = 32'768;  // bytes of one READDIR or READDIRPLUS reply
constexpr std::uint64_t kMaxFileSize = 0x7FFF'FFFF'FFFF'FFFF;
constexpr unsigned kMaxLinks = 1023;
constexpr unsigned kMaxNameLength = 255;  // bytes

}  // namespace nfslib::nfs3
