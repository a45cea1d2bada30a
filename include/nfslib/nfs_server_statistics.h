#pragma once

#include <nfslib/export.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace nfslib {

/// How long calls were served, as a histogram whose buckets double in width. Plain value.
struct NFSLIB_EXPORT NfsServiceTimes {
  /// The last bucket has no upper bound.
  static constexpr std::size_t kBuckets = 25;

  /// The calls whose time was at most `upperBound(i)`, and more than the one before it.
  std::array<std::uint64_t, kBuckets> buckets{};
  /// The time of all these calls together.
  std::chrono::nanoseconds sum{0};

  /// The upper bound of a bucket but for the last: 1.024 microseconds for the first, twice as much
  /// for each that follows, 8.6 seconds at the end.
  static constexpr std::chrono::nanoseconds upperBound(std::size_t bucket) {
    return std::chrono::nanoseconds(std::int64_t{1024} << bucket);
  }
  /// How many calls were measured.
  std::uint64_t count() const;
  /// The time within which the share `share` (0 to 1) of the calls was served, estimated within the
  /// bucket; 0 when no call was measured. Of the last bucket only the lower bound is known.
  std::chrono::nanoseconds quantile(double share) const;
};

/// What the NFS server of this process has done so far: `NfsServer::getStatistics` makes one.
///
/// All numbers count from the start of the process, over every start and stop of the server and
/// every export; none ever goes down, but for `openConnections`. They are read one after the other
/// while calls are served, so two of them may differ by the calls of that moment.
struct NfsServerStatistics {
  /// One procedure of a program, or one operation of version 4 within COMPOUND.
  struct Procedure {
    unsigned program = 0;  ///< its RPC number: 100000 port mapper, 100003 NFS, 100005 MOUNT
    unsigned version = 0;  ///< of the program
    /// Of NFS version 4: an operation, whose calls are also part of the procedure COMPOUND.
    bool isOperation = false;
    unsigned number = 0;  ///< of the procedure or operation
    /// As the RFC has it, in capitals; "#" and the number of one that is not served, "OTHER" of
    /// those beyond all numbers that are.
    std::string name;
    std::uint64_t calls = 0;  ///< all of them, failed ones too
    /// The calls answered with a status that is not OK, or not carried out at all.
    std::uint64_t errors = 0;
    /// From the decoded head to the encoded results; neither waiting for the network nor for other
    /// calls. Only some calls are measured: of each thread the first one and then each sixteenth.
    NfsServiceTimes serviceTimes;
  };
  /// How often a cache had what was looked for.
  struct Cache {
    std::uint64_t hits = 0;    ///< it had it
    std::uint64_t misses = 0;  ///< it had not
  };

  /// Those that were called, by program, version and number; operations behind procedures.
  std::vector<Procedure> procedures;

  std::uint64_t bytesRead = 0;      ///< of files, in replies to READ
  std::uint64_t bytesWritten = 0;   ///< to files, by WRITE
  std::uint64_t bytesReceived = 0;  ///< from the network, with the heads of calls
  std::uint64_t bytesSent = 0;      ///< to the network, with the heads of replies

  std::uint64_t openConnections = 0;      ///< TCP connections at this moment
  std::uint64_t acceptedConnections = 0;  ///< TCP connections in all

  std::uint64_t refusedCalls = 0;  ///< of callers who may not use the server (AUTH_ERROR)
  std::uint64_t invalidCalls = 0;  ///< no call that could be understood, or of no program served

  Cache attributes;   ///< attributes of objects
  Cache directories;  ///< open directories of the host; its root is never looked for
  Cache files;        ///< open files of the host
  Cache listings;     ///< where a listing stopped, for each page but the first
  /// Replies to repeated calls: a hit is a call that was answered with its first reply and counts
  /// nowhere else, a miss one that changes the tree and came for the first time.
  Cache replies;
};

/// One TCP connection of a client, at its beginning or at its end.
struct NfsConnection {
  bool isOpen = false;                    ///< it begins; else it has ended
  unsigned int address = 0;               ///< of the client, IPv4, in network byte order
  unsigned short port = 0;                ///< of the client, in host byte order
  std::chrono::milliseconds duration{0};  ///< the four below are of a connection that has ended
  std::uint64_t calls = 0;                ///< that got a reply
  std::uint64_t bytesReceived = 0;        ///< with the heads of calls
  std::uint64_t bytesSent = 0;            ///< with the heads of replies
};

/// Told of each connection, on the connection's own thread, several at once. It should return soon;
/// what it throws is dropped.
using NfsConnectionObserver = std::function<void(const NfsConnection&)>;

}  // namespace nfslib
