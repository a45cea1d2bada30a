#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

// What clients of version 4 may take of the server's memory, and for how long. All is taken as it
// is used.

namespace nfslib::nfs4 {

// ---- Both profiles

// Records of clients: a kilobyte each, and the owner's name of 1 KiB at most.
constexpr std::size_t kMaxClients = 4096;
// Of all clients: 3.2 KiB each, without slots.
constexpr std::size_t kMaxSessions = 16'384;
constexpr std::uint32_t kMaxOperations = 4096;  // of a COMPOUND

// ---- The classic profile

// Replies that a session keeps, by slots as the client numbers them.
constexpr std::size_t kMaxKnownSlots = 1024;

// ---- The modern profile

// One for each connection of a client that does not share them. A session has 64 slots of 48 bytes,
// as far as they are used; a short reply that is kept takes 200 more.
constexpr std::size_t kMaxSessionsOfClient = 128;
// Bytes of all replies that are kept. 64 slots of 64 KiB are 4 MiB a session: a few clients that
// ask for all of that have it, and so have all whose replies are short.
constexpr std::size_t kMaxKeptReplies = std::size_t{256} << 20U;
// The smallest request and reply that a session can do with: SEQUENCE and one operation.
constexpr std::uint32_t kSmallestMessage = 256;
// A client that is silent for longer than its lease keeps what it has while nobody else wants it,
// and is forgotten after ten leases, or this time if that is longer.
constexpr std::chrono::hours kCourtesy{1};
constexpr int kCourtesyLeases = 10;
// Clients that go at once when room is needed, and the time before it is looked for again where
// there was none.
constexpr std::size_t kMadeRoom = 64;
constexpr std::chrono::seconds kSearchPause{1};

}  // namespace nfslib::nfs4
