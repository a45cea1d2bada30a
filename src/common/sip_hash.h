#pragma once

#include "common/buffers.h"

#include <array>
#include <cstdint>

namespace nfslib::utility {

// 128 bits that nobody else knows.
using HashKey = std::array<std::uint64_t, 2>;
// Another one each time.
HashKey randomHashKey();

// SipHash-2-4: 64 bits of a text. Without the key nobody can choose two texts that have the same.
std::uint64_t sipHash(const HashKey& key, memory::const_buffer text);

}  // namespace nfslib::utility
