#include "nfs4/slot_table.h"

#include <utility>

namespace nfslib::nfs4 {

bool ReplyBudget::take(std::size_t bytes) {
  std::size_t left = m_left.load(std::memory_order_relaxed);
  do {
    if (bytes > left) return false;
  } while (!m_left.compare_exchange_weak(left, left - bytes, std::memory_order_relaxed));
  return true;
}

SlotTable::~SlotTable() {
  if (m_budget) m_budget->giveBack(m_taken);
}

void SlotTable::setUp(std::size_t slots, std::shared_ptr<ReplyBudget> budget) {
  m_size = slots;
  m_budget = std::move(budget);
}

SlotTable::Verdict SlotTable::judge(std::uint32_t slot, std::uint32_t sequenceId,
                                    Fingerprint fingerprint) const {
  if (slot >= m_size) return Verdict::NoSlot;
  static const Slot unused;
  const Slot& known = slot < m_slots.size() ? m_slots[slot] : unused;
  if (sequenceId == known.sequenceId + 1) return Verdict::New;
  // The first request is number 1: nothing repeats a 0 that was never sent.
  if (sequenceId != known.sequenceId || !known.isUsed) return Verdict::Misordered;
  if (fingerprint != known.fingerprint) return Verdict::FalseRetry;
  return known.response ? Verdict::Repeated : Verdict::NotKept;
}

void SlotTable::forget(Slot& slot) {
  if (!slot.response) return;
  const std::size_t bytes = slot.response->data.size();
  slot.response.reset();
  m_taken -= bytes;
  if (m_budget) m_budget->giveBack(bytes);
}

std::shared_ptr<CompoundResponse> SlotTable::begin(std::uint32_t slot, std::uint32_t sequenceId,
                                                   Fingerprint fingerprint,
                                                   std::uint32_t statusFlags, bool keep) {
  if (slot >= m_slots.size()) m_slots.resize(std::size_t{slot} + 1);  // below m_size: judged
  Slot& known = m_slots[slot];
  forget(known);
  known.isUsed = true;
  known.sequenceId = sequenceId;
  known.statusFlags = statusFlags;
  known.fingerprint = fingerprint;
  m_current = slot;
  m_expected = keep ? std::make_shared<CompoundResponse>() : nullptr;
  if (m_expected) m_expected->sequenceId = sequenceId;
  return m_expected;
}

void SlotTable::keep(const std::shared_ptr<CompoundResponse>& response) {
  if (!response || response != m_expected) return;
  m_expected.reset();
  const std::size_t bytes = response->data.size();
  if (m_budget && !m_budget->take(bytes)) return;
  m_taken += bytes;
  m_slots[m_current].response = response;
}

std::shared_ptr<CompoundResponse> SlotTable::responseOf(std::uint32_t slot) const {
  return m_slots.at(slot).response;
}

}  // namespace nfslib::nfs4
