#include "nfs4/owner_turn.h"

#include "common/host_failure.h"
#include "nfs4/state_references.h"

namespace nfslib::nfs4 {

using nfs::OperationResult;

namespace {

constexpr unsigned kClose = 4;
constexpr unsigned kOpen = 18;
constexpr unsigned kOpenConfirm = 20;
// The longest result is that of a LOCK that is denied.
constexpr std::size_t kLongestReply = 40 + StateOwner::kLongestName;

// The failures of requests that do not count, RFC 7530 section 9.1.7.
bool counts(OperationResult status) {
  switch (status) {
    case OperationResult::StaleClientId:
    case OperationResult::StaleStateId:
    case OperationResult::BadStateId:
    case OperationResult::BadSequenceId:
    case OperationResult::BadXdr:
    case OperationResult::Resource:
    case OperationResult::NoFileHandle:
    case OperationResult::Moved:
      return false;
    default:
      return true;
  }
}

}  // namespace

OwnerTurn::OwnerTurn(Call& call, unsigned operation, Kind kind, const StateOwner& owner,
                     std::uint32_t sequenceId)
    : m_call(call), m_operation(operation), m_name{kind, owner}, m_sequenceId(sequenceId) {
  if (applies()) begin(sequenceId);
}

OwnerTurn::OwnerTurn(Call& call, unsigned operation, Kind kind, const FsObjectStateId& stateId,
                     std::uint32_t sequenceId)
    : m_call(call),
      m_operation(operation),
      m_name{kind, {}},
      m_sequenceId(sequenceId),
      m_stateId(stateId) {
  if (!applies()) return;
  StateTable& table = call.service.openFiles();
  auto owner = table.ownerOf(stateId, kind);
  if (!owner && operation == kClose) owner = table.sequences().closerOf(stateId);
  if (!owner) return;  // as below
  m_name.owner = *std::move(owner);
  begin(sequenceId);
}

OwnerTurn::~OwnerTurn() {
  if (m_record) m_call.service.openFiles().sequences().giveBack(m_name, *m_record);
}

bool OwnerTurn::applies() const {
  return m_call.service.profile().isModern && m_call.flow.minorVersion == 0;
}

void OwnerTurn::begin(std::uint32_t sequenceId) {
  StateTable& table = m_call.service.openFiles();
  m_record = table.sequences().take(m_name);
  // The record comes first: a client that goes now takes it along.
  m_refusal = m_record ? statusOfOwner(m_call, m_name.owner) : OperationResult::Resource;
  if (m_record && m_refusal != OperationResult::OK && m_stateId) {
    table.sequences().giveBack(m_name, *m_record);
    m_record.reset();  // the operation says what is wrong with the stateid
    return;
  }
  if (m_refusal != OperationResult::OK) {
    m_verdict = Verdict::Refuse;
    return;
  }
  OwnerSequences::Record& record = *m_record;
  if (!record.isUsed) {
    // By a stateid that can be used it is an owner that was forgotten.
    record.isConfirmed = m_operation != kOpen && m_operation != kOpenConfirm;
    if (m_operation == kOpen) table.dropUnconfirmed(m_name.owner);
  } else if (m_operation == kOpen && !record.isConfirmed) {
    table.dropUnconfirmed(m_name.owner);  // starts anew
  } else if (sequenceId == record.sequenceId && m_operation == record.operation) {
    m_verdict = Verdict::Repeat;
  } else if (sequenceId != record.sequenceId + 1) {
    m_verdict = Verdict::Refuse;
    m_refusal = OperationResult::BadSequenceId;
  }
}

OperationResult OwnerTurn::answer() {
  if (m_verdict == Verdict::Refuse) return respondAlways(m_call, m_operation, m_refusal);
  const OwnerSequences::Record& record = *m_record;
  const unsigned statusPosition = m_call.stream.getOutputPosition() + sizeof(std::uint32_t);
  m_call.stream.write(record.reply.data(), static_cast<unsigned>(record.reply.size()));
  if (record.status == OperationResult::OK && record.operation == kOpen) {
    m_call.session().setCurrentFileSystemObject(m_call.service, record.current);
  }
  const OperationResult status = statusIfFull(m_call, statusPosition);
  return status == OperationResult::OK ? record.status : status;
}

OperationResult OwnerTurn::fail(const std::exception& failure) {
  log().warn("NFS operation [%1] failed. Error: [%2]", m_operation, failure.what());
  m_call.stream.seekOutput(m_start, SeekOrigin::Begin);
  m_call.stream.truncateOutput();
  return respondAlways(m_call, m_operation, statusOfFailure(failure));
}

OperationResult OwnerTurn::finish(OperationResult status) {
  const memory::const_buffer whole = m_call.stream.getOutputBuffer();
  if (!counts(status) || whole.size() - m_start > kLongestReply) return status;
  OwnerSequences::Record& record = *m_record;
  // A client whose first LOCK failed forgets the lock owner, and may give the name to another one,
  // which begins to count anew. The LOCK itself is repeated by the open owner's turn.
  const bool isNeverUsed = m_name.kind == Kind::Lock && !record.isUsed;
  if (isNeverUsed && status != OperationResult::OK) return status;
  record.isUsed = true;
  record.sequenceId = m_sequenceId;
  record.operation = m_operation;
  record.status = status;
  record.reply.assign(whole.begin() + m_start, whole.end());
  if (status == OperationResult::OK && m_operation == kOpen) {
    record.current = m_call.current().handle;
  }
  if (status == OperationResult::OK && m_operation == kClose) {
    m_call.service.openFiles().sequences().rememberClosed(*m_stateId, m_name.owner);
  }
  return status;
}

}  // namespace nfslib::nfs4
