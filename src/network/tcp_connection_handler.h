#pragma once

#include "network/connection_handler.h"
#include "network/read_ahead.h"
#include "network/socket_descriptor.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace nfslib::network {

// One TCP connection: RPC records behind record marks (RFC 5531 section 11). Each fragment is taken
// for a whole call whatever its last-fragment flag says, unless the processor wants them joined.
//
// Calls that arrived together are answered together: a reply waits for the next one while further
// calls are already here, but never long and never while the connection waits for its peer.
class TcpConnectionHandler final : public ConnectionHandler {
 public:
  struct FragmentHeader {
    unsigned length = 0;
    bool last = false;
  };

  TcpConnectionHandler(SocketDescriptor socket, rpc::RpcRequestProcessor& processor,
                       const sockaddr_in& peer);

  void flush() override;
  void dispose() override;

 private:
  using Clock = std::chrono::steady_clock;

  void processRequests(const bool& stop) override;
  void begun() override;
  void ended() override;
  void release() override;

  // All four return false when the connection is to end, after a line that says why.
  bool readFragmentHeader(FragmentHeader& header);
  bool readFragmentData(const FragmentHeader& header);
  bool readFragment();
  // The rest of a record whose first fragment, which is not its last, has this header.
  bool readFragments(FragmentHeader header);
  // A record that the stream cannot hold: its head is left in the stream, which is marked failed,
  // so that the caller gets an answer; the rest is skipped.
  bool readOversizedFragment(const FragmentHeader& header);
  bool endOfStream() const;

  bool moreCallsAtHand() const;
  bool anotherRecordAtHand() const;
  // Sends what was kept back and then `last`, all of it. `flags` as for sendmsg.
  void sendReplies(memory::const_buffer last, int flags = 0);
  void countSent(std::size_t bytes);
  // The same for a reply with a part that comes from a file.
  void sendReplyWithFile(OutputFromFile& part);

  std::mutex m_socketLock;  // so that dispose() never meets a descriptor that was just closed
  SocketDescriptor m_socket;
  std::atomic<bool> m_disposed{false};
  std::optional<ReadAhead> m_received;  // until the connection ends
  std::vector<std::byte> m_replies;     // kept back
  Clock::time_point m_firstReply;       // when the oldest of them was ready

  const Clock::time_point m_accepted = Clock::now();
  std::uint64_t m_calls = 0;  // answered
  std::uint64_t m_bytesSent = 0;
};

}  // namespace nfslib::network
