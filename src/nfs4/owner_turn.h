#pragma once

#include "nfs4/call.h"
#include "nfs4/owner_sequences.h"

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>

namespace nfslib::nfs4 {

// One operation of an open owner or a lock owner, in the order that the owner's sequence ids give
// in minor version 0 (RFC 7530 section 9.1.7): the next one runs, the last one is answered as it
// was the first time, any other is refused. Where sessions see to that, and in the classic profile,
// every operation just runs.
class OwnerTurn {
 public:
  using Kind = OwnerSequences::Kind;

  // Of the owner that the arguments name, which may be new. Waits for its operation before.
  OwnerTurn(Call& call, unsigned operation, Kind kind, const StateOwner& owner,
            std::uint32_t sequenceId);
  // Of the owner of a stateid.
  OwnerTurn(Call& call, unsigned operation, Kind kind, const FsObjectStateId& stateId,
            std::uint32_t sequenceId);
  ~OwnerTurn();
  OwnerTurn(const OwnerTurn&) = delete;
  OwnerTurn& operator=(const OwnerTurn&) = delete;

  // An open owner is confirmed when it has shown that its first OPEN was not an old one that came
  // late (RFC 7530 section 16.18).
  bool isConfirmed() const { return !m_record || m_record->isConfirmed; }
  void confirm() {
    if (m_record) m_record->isConfirmed = true;
  }

  // `work` does what the operation does and writes its result. What it throws is the operation's
  // failure, unless it is one of the whole COMPOUND.
  template <class Work>
  nfs::OperationResult run(const Work& work) {
    if (m_verdict != Verdict::Run) return answer();
    if (!m_record) return work();
    m_start = m_call.stream.getOutputPosition();
    try {
      return finish(work());
    } catch (const nfs::NfsOperationError&) {
      throw;
    } catch (const std::exception& e) {
      return finish(fail(e));
    }
  }

 private:
  enum class Verdict { Run, Repeat, Refuse };

  bool applies() const;
  void begin(std::uint32_t sequenceId);
  nfs::OperationResult answer();
  nfs::OperationResult fail(const std::exception& failure);
  nfs::OperationResult finish(nfs::OperationResult status);

  Call& m_call;
  const unsigned m_operation;
  OwnerSequences::Name m_name;
  std::uint32_t m_sequenceId;
  std::optional<FsObjectStateId> m_stateId;
  std::shared_ptr<OwnerSequences::Record> m_record;  // empty: there is no order to keep
  Verdict m_verdict = Verdict::Run;
  nfs::OperationResult m_refusal = nfs::OperationResult::OK;
  unsigned m_start = 0;  // of the result, in the reply
};

}  // namespace nfslib::nfs4
