#pragma once

#include "load_operations.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// A client and a session of NFS version 4.1 on one connection. The slot of a call is its slot in
// the session, so each has a sequence of its own.
class Session4 {
 public:
  // Makes a session of `slots` slots; or, for a server that does not look at it, makes none up to
  // now and uses an id of zeros.
  Session4(ClientConnection& connection, unsigned slots, bool isReal);
  // To be called when no call is in flight: a server may wait for clients that did not leave.
  void end();

  // Queues SEQUENCE and `count` operations more, which `operations` appends.
  template <class Operations>
  void queue(unsigned slot, unsigned count, Operations&& operations) {
    m_connection.queue(slot, kCompound, [&](Encoder& call) {
      begin(call, count + 1);
      operation(call, Operation::Sequence).bytes(m_id);
      call.word(++m_sequences.at(slot)).word(slot).word(m_slots - 1).word(0);
      operations(call);
    });
  }
  // Passes over what comes before the results of those operations.
  static void skipHead(Decoder& results);
  static Encoder& operation(Encoder& call, Operation number) {
    return call.word(static_cast<std::uint32_t>(number));
  }
  // Passes over an operation's number and its status, which has to be OK.
  static void requireDone(Decoder& results, Operation number);

  // Follows the components of the export and of `path` down from the root.
  Handle lookupPath(const std::string& path);
  std::uint64_t sizeOf(const Handle& file);
  // Opens the file for reading, until the end of the session.
  using StateId = std::array<std::byte, kStateIdSize>;
  StateId open(const Handle& file);

 private:
  static void begin(Encoder& call, unsigned count);
  static void requireCompound(Decoder& results);
  // One COMPOUND of one operation without SEQUENCE.
  template <class Arguments, class Results>
  void callAlone(Operation number, Arguments&& arguments, Results&& results);
  template <class Operations, class Results>
  void callOnce(unsigned count, Operations&& operations, Results&& results);

  ClientConnection& m_connection;
  const unsigned m_slots;
  const bool m_isReal;
  std::uint64_t m_clientId = 0;
  std::vector<std::pair<Handle, StateId>> m_open;
  std::array<std::byte, kSessionIdSize> m_id{};
  std::array<std::uint32_t, ClientConnection::kMaxSlots> m_sequences{};
};

// `name` is getattr, read or readdir; SEQUENCE and PUTFH come before each. `session` outlives it.
std::unique_ptr<LoadOperation> makeOperation4(const std::string& name, LoadTarget target,
                                              Session4& session);

}  // namespace bench
