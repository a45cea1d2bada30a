#pragma once

#include "common/status.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace nfslib::nfs4 {

// The reply of one slot's last COMPOUND.
struct CompoundResponse {
  std::uint32_t sequenceId = 0;
  std::uint32_t operationsCount = 0;
  nfs::OperationResult status = nfs::OperationResult::OK;
  std::vector<std::byte> data;  // the results, that of SEQUENCE first
};

// The bytes that the kept replies of all sessions share. Thread-safe.
class ReplyBudget {
 public:
  explicit ReplyBudget(std::size_t limit) : m_left(limit) {}

  // False when there are not so many left.
  bool take(std::size_t bytes);
  void giveBack(std::size_t bytes) { m_left.fetch_add(bytes, std::memory_order_relaxed); }
  std::size_t left() const { return m_left.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::size_t> m_left;
};

// The slots of a session as RFC 8881 section 2.10.6.1 has them: their number is agreed on, each
// begins at 0 and is counted up by every request that is new.
//
// A reply is kept when the client asks for it. One that the budget has no room for is sent all the
// same: what the COMPOUND did is done, and only a client that loses the reply misses it.
//
// Not thread-safe: of whoever has taken the session.
class SlotTable {
 public:
  enum class Verdict {
    New,
    Repeated,    // the reply is kept
    NotKept,     // repeated, but SEQUENCE's own result is all that is left
    FalseRetry,  // the number of a request that was another one
    Misordered,
    NoSlot,
  };
  // What is compared of a request that comes again.
  using Fingerprint = std::uint64_t;

  SlotTable() = default;
  ~SlotTable();
  SlotTable(const SlotTable&) = delete;
  SlotTable& operator=(const SlotTable&) = delete;

  // Before the first request.
  void setUp(std::size_t slots, std::shared_ptr<ReplyBudget> budget);
  std::size_t size() const { return m_size; }

  Verdict judge(std::uint32_t slot, std::uint32_t sequenceId, Fingerprint fingerprint) const;
  // A new request is run: the slot forgets the one before. `statusFlags` are those that SEQUENCE
  // answers with. Returns where its reply goes, empty when it is not to be kept.
  std::shared_ptr<CompoundResponse> begin(std::uint32_t slot, std::uint32_t sequenceId,
                                          Fingerprint fingerprint, std::uint32_t statusFlags,
                                          bool keep);
  // `response`, which `begin` gave out, is whole.
  void keep(const std::shared_ptr<CompoundResponse>& response);
  // Of a request that is repeated.
  std::shared_ptr<CompoundResponse> responseOf(std::uint32_t slot) const;
  std::uint32_t statusFlagsOf(std::uint32_t slot) const { return m_slots.at(slot).statusFlags; }

 private:
  struct Slot {
    bool isUsed = false;
    std::uint32_t sequenceId = 0;
    std::uint32_t statusFlags = 0;
    Fingerprint fingerprint = 0;
    std::shared_ptr<CompoundResponse> response;  // empty when none is kept
  };

  void forget(Slot& slot);

  std::size_t m_size = 0;
  std::vector<Slot> m_slots;  // as far as they were used
  std::shared_ptr<ReplyBudget> m_budget;
  std::size_t m_taken = 0;                       // of the budget
  std::uint32_t m_current = 0;                   // slot of the request that is run
  std::shared_ptr<CompoundResponse> m_expected;  // its reply
};

}  // namespace nfslib::nfs4
