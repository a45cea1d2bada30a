#pragma once

#include "wire.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace bench {

// One TCP connection that keeps calls in flight. Each call occupies a slot; its transaction id
// names the slot and the turn, so a reply that was not asked for, or comes twice, is noticed.
//
// Calls are queued and leave together with one send; one receive takes whatever replies have come.
// Failures, a refused call among them, are std::runtime_errors.
class ClientConnection {
 public:
  static constexpr unsigned kMaxSlots = 256;
  // The results of a call, that is what follows the accept status, and how long it took.
  using Results = std::function<void(unsigned slot, Decoder results, std::uint64_t nanoseconds)>;

  // Connects; `version` is that of the program. `slots` calls of up to `largestCall` bytes can be
  // in flight.
  ClientConnection(const std::string& host, unsigned short port, std::uint32_t program,
                   std::uint32_t version, unsigned slots, std::size_t largestCall);
  ~ClientConnection();
  ClientConnection(const ClientConnection&) = delete;
  ClientConnection& operator=(const ClientConnection&) = delete;

  // Starts a call in a free slot; `arguments` appends what the procedure takes.
  template <class Arguments>
  void queue(unsigned slot, Procedure procedure, Arguments&& arguments) {
    const std::size_t start = beginCall(slot, procedure);
    arguments(m_out);
    m_out.endRecord(start);
  }
  // Sends what is queued.
  void flush();
  // Waits for at least one reply and hands over every reply that has come.
  void receive(const Results& results);
  unsigned inFlight() const { return m_inFlight; }

 private:
  struct Slot {
    std::uint32_t xid = 0;
    bool waiting = false;
    std::uint64_t started = 0;
  };

  std::size_t beginCall(unsigned slot, Procedure procedure);
  std::span<const std::byte> nextRecord();
  void acceptReply(std::span<const std::byte> reply, std::uint64_t now, const Results& results);

  int m_socket = -1;
  std::vector<std::byte> m_callHeader;  // from the record mark to the verifier
  std::vector<Slot> m_slots;
  unsigned m_inFlight = 0;
  std::uint32_t m_turn = 0;
  std::vector<std::byte> m_output;
  Encoder m_out;
  std::vector<std::byte> m_input;
  std::size_t m_begin = 0;  // of what is received and not yet handed over
  std::size_t m_end = 0;
  std::size_t m_missing = 0;  // at least so many bytes until a record is complete
};

}  // namespace bench
