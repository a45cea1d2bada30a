#include "nfs4/state_table.h"

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

namespace nfslib::nfs4 {

using nfs::OperationResult;

namespace {

constexpr std::size_t kMaxOpens = 262'144;
constexpr std::size_t kMaxOpensOfClient = 65'536;
// Files beyond this number are opened anew when they are used, so that a client that never closes
// anything does not use up the host's descriptors.
constexpr std::size_t kMaxHeld = 1024;
constexpr std::size_t kMaxExclusive = 256;
constexpr std::uint64_t k48Bits = 0xFFFF'FFFF'FFFF;
constexpr int kHalf = 6;  // bytes

std::uint64_t drawInstance() {
  std::random_device device;
  // Not 0: the stateids of zeros are special ones.
  return std::uniform_int_distribution<std::uint64_t>(1, k48Bits)(device);
}

// Sequence ids go around, but 0 means "the newest".
std::uint32_t next(std::uint32_t sequenceId) { return sequenceId + 1 == 0 ? 1 : sequenceId + 1; }

}  // namespace

StateTable::StateTable() : m_instance(drawInstance()) {}

FsObjectStateId StateTable::idOf(std::uint64_t number, std::uint32_t sequenceId) const {
  FsObjectStateId id{sequenceId, {}};
  for (int i = 0; i < kHalf; ++i) {
    const auto at = static_cast<std::size_t>(i);
    id.other.bytes[at] = static_cast<std::byte>(m_instance >> (8 * i));
    id.other.bytes[at + kHalf] = static_cast<std::byte>(number >> (8 * i));
  }
  return id;
}

// The number in a stateid of an open that there is. Sequence ids are compared too.
OperationResult StateTable::numberOf(const FsObjectStateId& id, std::uint64_t clientId,
                                     std::uint64_t& number) const {
  std::uint64_t instance = 0;
  number = 0;
  for (int i = kHalf - 1; i >= 0; --i) {
    const auto at = static_cast<std::size_t>(i);
    instance = instance << 8U | std::to_integer<std::uint64_t>(id.other.bytes[at]);
    number = number << 8U | std::to_integer<std::uint64_t>(id.other.bytes[at + kHalf]);
  }
  const bool hasSession = clientId != 0;
  if (instance != m_instance) {
    // Clients with sessions learn of a restart by those.
    return hasSession ? OperationResult::BadStateId : OperationResult::StaleStateId;
  }
  const auto open = m_opens.find(number);
  if (open == m_opens.end()) return OperationResult::BadStateId;
  if (hasSession && open->second.owner.clientId != clientId) return OperationResult::BadStateId;
  const std::uint32_t current = open->second.sequenceId;
  if (id.sequenceId == current || (hasSession && id.sequenceId == 0)) return OperationResult::OK;
  return id.sequenceId < current ? OperationResult::OldStateId : OperationResult::BadStateId;
}

OperationResult StateTable::locate(const Reference& reference, std::uint64_t& number) const {
  const OperationResult status = numberOf(reference.id, reference.clientId, number);
  if (status != OperationResult::OK) return status;
  return m_opens.at(number).file == reference.file ? OperationResult::OK
                                                   : OperationResult::BadStateId;
}

bool StateTable::isDenied(const FileKey& key, std::uint64_t except, unsigned access,
                          unsigned deny) const {
  const auto file = m_byFile.find(key);
  if (file == m_byFile.end()) return false;
  return std::any_of(file->second.begin(), file->second.end(), [&](const auto& row) {
    if (row.second == except) return false;
    const Open& other = m_opens.at(row.second);
    return (other.deny & access) != 0 || (other.access & deny) != 0;
  });
}

OperationResult StateTable::open(const FileKey& key, const Owner& owner, unsigned access,
                                 unsigned deny, Held file, Opened& opened) {
  const std::lock_guard lock(m_lock);
  std::uint64_t number = 0;
  if (const auto owners = m_byFile.find(key); owners != m_byFile.end()) {
    if (const auto known = owners->second.find(owner); known != owners->second.end()) {
      number = known->second;
    }
  }
  if (isDenied(key, number, access, deny)) return OperationResult::ShareDenied;
  opened.isNew = number == 0;
  if (opened.isNew) {
    std::size_t& count = m_countByClient[owner.clientId];
    if (count == kMaxOpensOfClient || m_opens.size() == kMaxOpens) return OperationResult::Resource;
    number = m_lastNumber = (m_lastNumber + 1) & k48Bits;
    m_byFile[key].emplace(owner, number);
    m_opens.emplace(number, Open{.owner = owner, .file = key, .held = {}});
    ++count;
  }
  Open& open = m_opens.at(number);
  open.access |= access;
  open.deny |= deny;
  open.sequenceId = next(open.sequenceId);
  if (!open.held.file && file.file && m_held < kMaxHeld) {
    open.held = std::move(file);
    ++m_held;
  }
  opened.id = idOf(number, open.sequenceId);
  return OperationResult::OK;
}

// What was held goes along, for the caller to release after the lock.
StateTable::Held StateTable::erase(std::uint64_t number) {
  const auto open = m_opens.find(number);
  const auto file = m_byFile.find(open->second.file);
  file->second.erase(open->second.owner);
  if (file->second.empty()) m_byFile.erase(file);
  const auto count = m_countByClient.find(open->second.owner.clientId);
  if (--count->second == 0) m_countByClient.erase(count);
  Held held = std::move(open->second.held);
  if (held.file) --m_held;
  m_opens.erase(open);
  return held;
}

OperationResult StateTable::close(const Reference& reference, FsObjectStateId& closed) {
  Held held;  // released after the lock
  const std::lock_guard lock(m_lock);
  std::uint64_t number = 0;
  const OperationResult status = locate(reference, number);
  if (status != OperationResult::OK) return status;
  closed = idOf(number, next(m_opens.at(number).sequenceId));
  held = erase(number);
  return OperationResult::OK;
}

OperationResult StateTable::downgrade(const Reference& reference, unsigned access, unsigned deny,
                                      FsObjectStateId& id) {
  const std::lock_guard lock(m_lock);
  std::uint64_t number = 0;
  const OperationResult status = locate(reference, number);
  if (status != OperationResult::OK) return status;
  Open& open = m_opens.at(number);
  if ((access & ~open.access) != 0 || (deny & ~open.deny) != 0) {
    return OperationResult::InvalidArgument;
  }
  open.access = access;
  open.deny = deny;
  open.sequenceId = next(open.sequenceId);
  id = idOf(number, open.sequenceId);
  return OperationResult::OK;
}

OperationResult StateTable::find(const Reference& reference, unsigned access, Held& held) const {
  const std::lock_guard lock(m_lock);
  std::uint64_t number = 0;
  const OperationResult status = locate(reference, number);
  if (status != OperationResult::OK) return status;
  const Open& open = m_opens.at(number);
  if ((access & ~open.access) != 0) return OperationResult::OpenMode;
  held = open.held;
  return OperationResult::OK;
}

void StateTable::replace(const Reference& reference, Held held) {
  const std::lock_guard lock(m_lock);
  std::uint64_t number = 0;
  if (locate(reference, number) != OperationResult::OK) return;
  Held& known = m_opens.at(number).held;
  if (known.file) std::swap(known, held);
}

bool StateTable::isFree(const FileKey& key, unsigned access) const {
  constexpr std::uint64_t kNobody = 0;
  const std::lock_guard lock(m_lock);
  return !isDenied(key, kNobody, access, 0);
}

OperationResult StateTable::test(const FsObjectStateId& id, std::uint64_t clientId) const {
  const std::lock_guard lock(m_lock);
  std::uint64_t number = 0;
  return numberOf(id, clientId, number);
}

bool StateTable::hasState(std::uint64_t clientId) const {
  const std::lock_guard lock(m_lock);
  return m_countByClient.contains(clientId);
}

template <class Predicate>
void StateTable::dropIf(const Predicate& isGone) {
  std::vector<Held> held;  // released after the lock
  const std::lock_guard lock(m_lock);
  std::vector<std::uint64_t> gone;
  for (const auto& [number, open] : m_opens) {
    if (isGone(open)) gone.push_back(number);
  }
  for (const std::uint64_t number : gone) held.push_back(erase(number));
}

void StateTable::dropClient(std::uint64_t clientId) {
  if (!hasState(clientId)) return;
  dropIf([&](const Open& open) { return open.owner.clientId == clientId; });
}

void StateTable::dropFileSystem(std::uint32_t fileSystemId) {
  dropIf([&](const Open& open) { return open.file.fileSystemId == fileSystemId; });
  const std::lock_guard lock(m_lock);
  m_exclusive.erase(fileSystemId);
}

void StateTable::rememberExclusive(const FileKey& key, const verifier4& verifier) {
  const std::lock_guard lock(m_lock);
  m_exclusive.try_emplace(key.fileSystemId, kMaxExclusive)
      .first->second.set(key.objectId, verifier);
}

bool StateTable::madeExclusively(const FileKey& key, const verifier4& verifier) {
  const std::lock_guard lock(m_lock);
  const auto made = m_exclusive.find(key.fileSystemId);
  if (made == m_exclusive.end()) return false;
  const auto known = made->second.find(key.objectId);
  return known && *known == verifier;
}

}  // namespace nfslib::nfs4
