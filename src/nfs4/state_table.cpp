#include "nfs4/state_table.h"

#include <algorithm>
#include <random>
#include <utility>

namespace nfslib::nfs4 {

using nfs::OperationResult;
using Kind = OwnerSequences::Kind;

namespace {

// How much of a thing there may be. A client that asks for more is told NFS4ERR_RESOURCE.
struct Bound {
  std::size_t ofClient;
  std::size_t ofAll;

  bool hasRoom(std::size_t client, std::size_t all, std::size_t more = 1) const {
    return client + more <= ofClient && all + more <= ofAll;
  }
};
// What one costs: an open 600 bytes, an owner 300 and its name of up to 1,024, the state of an
// owner's locks 300, a piece of a file that is locked 180.
constexpr Bound kOpens{65'536, 262'144};
constexpr Bound kOwners{131'072, 262'144};
constexpr Bound kLockStates{131'072, 262'144};
constexpr Bound kRanges{262'144, 1'048'576};
constexpr std::size_t kMostNewRanges = 2;  // by one change: what it is put into falls apart
// Stateids that are remembered when their clients have lost them, 100 bytes each. Beyond that the
// oldest are as if they had never been.
constexpr std::size_t kMaxRevoked = 65'536;
// Files beyond this number are opened anew when they are used, so that a client that never closes
// anything does not use up the host's descriptors.
constexpr std::size_t kMaxHeld = 1024;
constexpr std::size_t kMaxExclusive = 256;
constexpr std::uint64_t k48Bits = 0xFFFF'FFFF'FFFF;
constexpr int kHalf = 6;  // bytes
constexpr std::uint64_t kNobody = 0;
constexpr ByteRange kWholeFile{0, UINT64_MAX};

bool isSpecial(std::uint64_t instance) { return instance == 0 || instance == k48Bits; }

std::uint64_t drawInstance() {
  std::random_device device;
  // Not the first and the last one: the stateids of zeros and of ones are special.
  return std::uniform_int_distribution<std::uint64_t>(1, k48Bits - 1)(device);
}

// Sequence ids go around, but 0 means "the newest".
std::uint32_t next(std::uint32_t sequenceId) { return sequenceId + 1 == 0 ? 1 : sequenceId + 1; }

LockDenied describe(const ByteRanges::Lock& lock) {
  constexpr std::uint32_t kRead = 1;  // READ_LT
  constexpr std::uint32_t kWrite = 2;
  const bool isOpenEnded = lock.range.last == UINT64_MAX;
  return {lock.range.first, isOpenEnded ? UINT64_MAX : lock.range.last - lock.range.first + 1,
          lock.isWrite ? kWrite : kRead, *lock.holder};
}

}  // namespace

StateTable::StateTable() : m_instance(drawInstance()) {}

// ---- Stateids

FsObjectStateId StateTable::idOf(std::uint64_t number, std::uint32_t sequenceId) const {
  FsObjectStateId id{sequenceId, {}};
  for (int i = 0; i < kHalf; ++i) {
    const auto at = static_cast<std::size_t>(i);
    id.other.bytes[at] = static_cast<std::byte>(m_instance >> (8 * i));
    id.other.bytes[at + kHalf] = static_cast<std::byte>(number >> (8 * i));
  }
  return id;
}

// The number in a stateid of this table.
OperationResult StateTable::numberOf(const FsObjectStateId& id, std::uint64_t clientId,
                                     std::uint64_t& number) const {
  std::uint64_t instance = 0;
  number = 0;
  for (int i = kHalf - 1; i >= 0; --i) {
    const auto at = static_cast<std::size_t>(i);
    instance = instance << 8U | std::to_integer<std::uint64_t>(id.other.bytes[at]);
    number = number << 8U | std::to_integer<std::uint64_t>(id.other.bytes[at + kHalf]);
  }
  if (instance == m_instance) return OperationResult::OK;
  // Clients with sessions learn of a restart by those.
  const bool isBad = clientId != kNobody || isSpecial(instance);
  return isBad ? OperationResult::BadStateId : OperationResult::StaleStateId;
}

// Sequence ids are compared too. On any failure but that of a sequence id nothing is found.
OperationResult StateTable::lookUp(const FsObjectStateId& id, std::uint64_t clientId,
                                   Found& found) {
  std::uint64_t number = 0;
  const OperationResult status = numberOf(id, clientId, number);
  if (status != OperationResult::OK) return status;
  const bool hasSession = clientId != kNobody;
  const auto isForeign = [&](std::uint64_t owner) { return hasSession && owner != clientId; };

  Found known;
  if (const auto open = m_opens.find(number); open != m_opens.end()) {
    known.open = &open->second;
  } else if (const auto lock = m_locks.find(number); lock != m_locks.end()) {
    known = {lock->second.open, &lock->second};
  } else {
    const auto revoked = m_revoked.find(number);
    const bool isExpired = revoked != m_revoked.end() && !isForeign(revoked->second);
    return isExpired ? OperationResult::Expired : OperationResult::BadStateId;
  }
  if (isForeign(known.open->owner->first.clientId)) return OperationResult::BadStateId;
  found = known;
  const std::uint32_t current = found.lock ? found.lock->sequenceId : found.open->sequenceId;
  if (id.sequenceId == current || (hasSession && id.sequenceId == 0)) return OperationResult::OK;
  return id.sequenceId < current ? OperationResult::OldStateId : OperationResult::BadStateId;
}

OperationResult StateTable::locate(const Reference& reference, Found& found) {
  const OperationResult status = lookUp(reference.id, reference.clientId, found);
  if (status != OperationResult::OK) return status;
  return found.open->isConfirmed && found.open->file->first == reference.file
             ? OperationResult::OK
             : OperationResult::BadStateId;
}

OperationResult StateTable::locateOpen(const Reference& reference, Found& found) {
  const OperationResult status = locate(reference, found);
  return status == OperationResult::OK && found.lock != nullptr ? OperationResult::BadStateId
                                                                : status;
}

OperationResult StateTable::test(const FsObjectStateId& id, std::uint64_t clientId) {
  const std::lock_guard lock(m_lock);
  Found found;
  return lookUp(id, clientId, found);
}

OperationResult StateTable::free(const FsObjectStateId& id, std::uint64_t clientId) {
  const std::lock_guard lock(m_lock);
  Found found;
  const OperationResult status = lookUp(id, clientId, found);
  if (status == OperationResult::Expired) {
    std::uint64_t number = 0;
    numberOf(id, clientId, number);
    forgetRevoked(m_revoked.find(number));
    return OperationResult::OK;
  }
  if (status != OperationResult::OK) return status;
  // Only CLOSE ends an open.
  if (found.lock == nullptr) return OperationResult::LocksHeld;
  const bool hasLocks = found.open->file->second.ranges.count(&found.lock->owner->first) != 0;
  if (hasLocks) return OperationResult::LocksHeld;
  eraseLock(found.lock->number);
  return OperationResult::OK;
}

std::optional<StateOwner> StateTable::ownerOf(const FsObjectStateId& id, Kind kind) const {
  const std::lock_guard guard(m_lock);
  std::uint64_t number = 0;
  if (numberOf(id, kNobody, number) != OperationResult::OK) return std::nullopt;
  if (kind == Kind::Open) {
    const auto open = m_opens.find(number);
    if (open != m_opens.end()) return open->second.owner->first;
  } else {
    const auto lock = m_locks.find(number);
    if (lock != m_locks.end()) return lock->second.owner->first;
  }
  return std::nullopt;
}

std::uint64_t StateTable::clientOf(const FsObjectStateId& id) const {
  const std::lock_guard guard(m_lock);
  std::uint64_t number = 0;
  if (numberOf(id, kNobody, number) != OperationResult::OK) return kNobody;
  if (const auto open = m_opens.find(number); open != m_opens.end()) {
    return open->second.owner->first.clientId;
  }
  const auto lock = m_locks.find(number);
  return lock != m_locks.end() ? lock->second.owner->first.clientId : kNobody;
}

// ---- Conflicts

// `attempt`, which locks the table, tells whose state is in its way. A client that is silent loses
// it, and then it is tried again.
template <class Attempt>
OperationResult StateTable::settle(const Attempt& attempt) {
  for (;;) {
    std::uint64_t objector = kNobody;
    const OperationResult status = attempt(objector);
    if (objector == kNobody || !m_isSilent(objector)) return status;
    revoke(objector);
  }
}

// An open that does not go with an access and a denial; the counts tell in most cases that there is
// none.
const StateTable::Open* StateTable::findObjection(const FileState& file, const Open* except,
                                                  unsigned access, unsigned deny) const {
  const auto others = [&](const std::array<std::size_t, 2>& counts, unsigned own, unsigned wanted) {
    for (unsigned bit = 0; bit < counts.size(); ++bit) {
      if ((wanted >> bit & 1U) != 0 && counts[bit] > (own >> bit & 1U)) return true;
    }
    return false;
  };
  if (!others(file.denying, except ? except->deny : 0, access) &&
      !others(file.accessing, except ? except->access : 0, deny)) {
    return nullptr;
  }
  for (const auto& [owner, open] : file.opens) {
    if (open == except) continue;
    if ((open->deny & access) != 0 || (open->access & deny) != 0) return open;
  }
  return nullptr;
}

// `row` is that of the owner, if it has one.
OperationResult StateTable::checkRange(const FileState& file, const Owner& owner,
                                       const OwnerRow* row, const RangeLock& wanted,
                                       LockDenied& denied, std::uint64_t& objector) const {
  const auto other =
      file.ranges.findConflict({wanted.range, wanted.isWrite, row ? &row->first : nullptr});
  if (!other) return OperationResult::OK;
  denied = describe(*other);
  if (denied.owner.clientId != owner.clientId) objector = denied.owner.clientId;
  return OperationResult::Denied;
}

// ---- What there is. Everything is entered and taken out here.

const StateTable::ClientState& StateTable::of(std::uint64_t clientId) const {
  static const ClientState nothing;
  const auto client = m_clients.find(clientId);
  return client == m_clients.end() ? nothing : client->second;
}

bool StateTable::hasRoomForOwner(const Owners& owners, const Owner& owner) const {
  return owners.contains(owner) ||
         kOwners.hasRoom(of(owner.clientId).owners, m_openOwners.size() + m_lockOwners.size());
}

bool StateTable::hasRoomForRanges(std::uint64_t clientId) const {
  return kRanges.hasRoom(of(clientId).ranges, m_ranges, kMostNewRanges);
}

StateTable::Open* StateTable::findOpen(const FileKey& key, const Owner& owner) {
  const auto file = m_files.find(key);
  const auto row = m_openOwners.find(owner);
  if (file == m_files.end() || row == m_openOwners.end()) return nullptr;
  const auto open = file->second.opens.find(&*row);
  return open == file->second.opens.end() ? nullptr : open->second;
}

StateTable::OwnerRow& StateTable::enter(Owners& owners, const Owner& owner, std::uint64_t number) {
  OwnerRow& row = *owners.try_emplace(owner).first;
  if (row.second.states.empty()) ++m_clients[owner.clientId].owners;
  row.second.states.insert(number);
  return row;
}

void StateTable::leave(Owners& owners, OwnerRow& row, std::uint64_t number) {
  row.second.states.erase(number);
  if (!row.second.states.empty()) return;
  --m_clients.at(row.first.clientId).owners;
  owners.erase(owners.find(row.first));
}

StateTable::Open& StateTable::makeOpen(const FileKey& key, const Owner& owner, bool isConfirmed) {
  m_lastNumber = (m_lastNumber + 1) & k48Bits;
  const std::uint64_t number = m_lastNumber;
  m_clients[owner.clientId].opens.insert(number);
  OwnerRow& row = enter(m_openOwners, owner, number);
  auto& file = *m_files.try_emplace(key).first;
  Open& open = m_opens[number];
  open.number = number;
  open.owner = &row;
  open.file = &file;
  open.isConfirmed = isConfirmed;
  if (!isConfirmed) row.second.unconfirmed = number;
  file.second.opens.emplace(&row, &open);
  return open;
}

StateTable::Lock& StateTable::makeLock(Open& open, const Owner& owner) {
  m_lastNumber = (m_lastNumber + 1) & k48Bits;
  const std::uint64_t number = m_lastNumber;
  ++m_clients.at(owner.clientId).locks;
  OwnerRow& row = enter(m_lockOwners, owner, number);
  ++open.file->second.lockers[&row];
  open.locks.emplace(&row, number);
  return m_locks[number] = {number, &row, &open, 0};
}

void StateTable::setShare(Open& open, unsigned access, unsigned deny) {
  FileState& file = open.file->second;
  for (unsigned bit = 0; bit < file.accessing.size(); ++bit) {
    file.accessing[bit] += (access >> bit & 1U);
    file.accessing[bit] -= (open.access >> bit & 1U);
    file.denying[bit] += (deny >> bit & 1U);
    file.denying[bit] -= (open.deny >> bit & 1U);
  }
  open.access = access;
  open.deny = deny;
}

template <class Change>
void StateTable::changeRanges(FileState& file, OwnerRow& owner, const Change& change) {
  const LockHolder holder = &owner.first;
  const std::size_t before = file.ranges.count(holder);
  change(holder);
  const std::size_t after = file.ranges.count(holder);
  for (std::size_t* count :
       {&m_ranges, &owner.second.ranges, &m_clients.at(holder->clientId).ranges}) {
    *count += after;
    *count -= before;
  }
}

void StateTable::eraseLock(std::uint64_t number) {
  const auto lock = m_locks.find(number);
  OwnerRow& owner = *lock->second.owner;
  Open& open = *lock->second.open;
  FileState& file = open.file->second;
  open.locks.erase(&owner);
  const auto states = file.lockers.find(&owner);
  if (--states->second == 0) {
    changeRanges(file, owner, [&](LockHolder holder) { file.ranges.clear(holder, kWholeFile); });
    file.lockers.erase(states);
  }
  --m_clients.at(owner.first.clientId).locks;
  leave(m_lockOwners, owner, number);
  m_locks.erase(lock);
}

// What was held goes along, for the caller to release after the lock.
StateTable::Held StateTable::eraseOpen(std::uint64_t number) {
  const auto at = m_opens.find(number);
  Open& open = at->second;
  while (!open.locks.empty()) eraseLock(open.locks.begin()->second);
  setShare(open, 0, 0);
  auto& file = *open.file;
  file.second.opens.erase(open.owner);
  if (file.second.opens.empty()) m_files.erase(m_files.find(file.first));
  const std::uint64_t clientId = open.owner->first.clientId;
  if (open.owner->second.unconfirmed == number) open.owner->second.unconfirmed = 0;
  leave(m_openOwners, *open.owner, number);
  const auto client = m_clients.find(clientId);
  client->second.opens.erase(number);
  if (client->second.opens.empty()) m_clients.erase(client);
  Held held = std::move(open.held);
  if (held.file) --m_held;
  m_opens.erase(at);
  return held;
}

std::vector<StateTable::Held> StateTable::eraseAllOf(std::uint64_t clientId) {
  std::vector<Held> held;
  for (auto client = m_clients.find(clientId); client != m_clients.end();
       client = m_clients.find(clientId)) {
    held.push_back(eraseOpen(*client->second.opens.begin()));
  }
  return held;
}

// ---- Opens

OperationResult StateTable::open(const FileKey& key, const Owner& owner, const Share& share,
                                 Held file, Opened& opened) {
  return settle([&](std::uint64_t& objector) {
    const std::lock_guard lock(m_lock);
    Open* open = findOpen(key, owner);
    if (const auto at = m_files.find(key); at != m_files.end()) {
      const Open* other = findObjection(at->second, open, share.access, share.deny);
      if (other != nullptr) {
        const std::uint64_t client = other->owner->first.clientId;
        if (client != owner.clientId) objector = client;
        return OperationResult::ShareDenied;
      }
    }
    opened.isNew = open == nullptr;
    if (opened.isNew) {
      const bool hasRoom = kOpens.hasRoom(of(owner.clientId).opens.size(), m_opens.size()) &&
                           hasRoomForOwner(m_openOwners, owner);
      if (!hasRoom) return OperationResult::Resource;
      open = &makeOpen(key, owner, share.isConfirmed);
    }
    setShare(*open, open->access | share.access, open->deny | share.deny);
    open->sequenceId = next(open->sequenceId);
    if (!open->held.file && file.file && m_held < kMaxHeld) {
      open->held = std::move(file);
      ++m_held;
    }
    opened.id = idOf(open->number, open->sequenceId);
    return OperationResult::OK;
  });
}

OperationResult StateTable::confirm(const Reference& reference) {
  const std::lock_guard lock(m_lock);
  Found found;
  const OperationResult status = lookUp(reference.id, reference.clientId, found);
  if (status != OperationResult::OK) return status;
  Open& open = *found.open;
  if (found.lock != nullptr || open.file->first != reference.file) {
    return OperationResult::BadStateId;
  }
  open.isConfirmed = true;
  open.owner->second.unconfirmed = 0;
  return OperationResult::OK;
}

void StateTable::dropUnconfirmed(const Owner& owner) {
  Held held;  // released after the lock
  const std::lock_guard lock(m_lock);
  const auto row = m_openOwners.find(owner);
  if (row == m_openOwners.end() || row->second.unconfirmed == 0) return;
  held = eraseOpen(row->second.unconfirmed);
}

void StateTable::takeBack(const FsObjectStateId& id) {
  Held held;  // released after the lock
  const std::lock_guard lock(m_lock);
  Found found;
  if (lookUp(id, kNobody, found) != OperationResult::OK || found.lock != nullptr) return;
  held = eraseOpen(found.open->number);
}

OperationResult StateTable::close(const Reference& reference, FsObjectStateId& closed) {
  Held held;  // released after the lock
  const std::lock_guard lock(m_lock);
  Found found;
  const OperationResult status = locateOpen(reference, found);
  if (status != OperationResult::OK) return status;
  closed = idOf(found.open->number, next(found.open->sequenceId));
  held = eraseOpen(found.open->number);
  return OperationResult::OK;
}

OperationResult StateTable::downgrade(const Reference& reference, unsigned access, unsigned deny,
                                      FsObjectStateId& id) {
  const std::lock_guard lock(m_lock);
  Found found;
  const OperationResult status = locateOpen(reference, found);
  if (status != OperationResult::OK) return status;
  Open& open = *found.open;
  if ((access & ~open.access) != 0 || (deny & ~open.deny) != 0) {
    return OperationResult::InvalidArgument;
  }
  setShare(open, access, deny);
  open.sequenceId = next(open.sequenceId);
  id = idOf(open.number, open.sequenceId);
  return OperationResult::OK;
}

OperationResult StateTable::find(const Reference& reference, unsigned access, Held& held) {
  const std::lock_guard lock(m_lock);
  Found found;
  const OperationResult status = locate(reference, found);
  if (status != OperationResult::OK) return status;
  if ((access & ~found.open->access) != 0) return OperationResult::OpenMode;
  held = found.open->held;
  return OperationResult::OK;
}

void StateTable::replace(const Reference& reference, Held held) {
  const std::lock_guard lock(m_lock);
  Found found;
  if (locate(reference, found) != OperationResult::OK) return;
  Held& known = found.open->held;
  if (known.file) std::swap(known, held);
}

bool StateTable::isFree(const FileKey& key, unsigned access) {
  const OperationResult status = settle([&](std::uint64_t& objector) {
    const std::lock_guard lock(m_lock);
    const auto file = m_files.find(key);
    const Open* other =
        file == m_files.end() ? nullptr : findObjection(file->second, nullptr, access, 0);
    if (other == nullptr) return OperationResult::OK;
    objector = other->owner->first.clientId;
    return OperationResult::Locked;
  });
  return status == OperationResult::OK;
}

// ---- Byte-range locks

OperationResult StateTable::lock(const Reference& reference, const std::optional<Owner>& owner,
                                 const RangeLock& wanted, FsObjectStateId& id, LockDenied& denied) {
  return settle([&](std::uint64_t& objector) {
    const std::lock_guard guard(m_lock);
    Found found;
    OperationResult status = locate(reference, found);
    if (status != OperationResult::OK) return status;
    Open& open = *found.open;
    if (owner.has_value() == (found.lock != nullptr)) return OperationResult::BadStateId;
    if (owner && owner->clientId != open.owner->first.clientId) return OperationResult::BadStateId;
    const unsigned needed = wanted.isWrite ? 2 : 1;
    if ((open.access & needed) == 0) return OperationResult::OpenMode;

    const Owner who = owner ? *owner : found.lock->owner->first;
    const auto row = m_lockOwners.find(who);
    const OwnerRow* known = row == m_lockOwners.end() ? nullptr : &*row;
    FileState& file = open.file->second;
    status = checkRange(file, who, known, wanted, denied, objector);
    if (status != OperationResult::OK) return status;
    if (!hasRoomForRanges(who.clientId)) return OperationResult::Resource;
    Lock* lock = found.lock;
    if (lock == nullptr) {
      const auto before = open.locks.find(known);
      if (before != open.locks.end()) {
        lock = &m_locks.at(before->second);
      } else if (kLockStates.hasRoom(of(who.clientId).locks, m_locks.size()) &&
                 hasRoomForOwner(m_lockOwners, who)) {
        lock = &makeLock(open, who);
      } else {
        return OperationResult::Resource;
      }
    }
    changeRanges(file, *lock->owner, [&](LockHolder holder) {
      file.ranges.set({wanted.range, wanted.isWrite, holder});
    });
    lock->sequenceId = next(lock->sequenceId);
    id = idOf(lock->number, lock->sequenceId);
    return OperationResult::OK;
  });
}

OperationResult StateTable::unlock(const Reference& reference, const ByteRange& range,
                                   FsObjectStateId& id) {
  const std::lock_guard guard(m_lock);
  Found found;
  const OperationResult status = locate(reference, found);
  if (status != OperationResult::OK) return status;
  if (found.lock == nullptr) return OperationResult::BadStateId;
  Lock& lock = *found.lock;
  FileState& file = found.open->file->second;
  const bool grows = file.ranges.splits(&lock.owner->first, range);
  if (grows && !hasRoomForRanges(lock.owner->first.clientId)) return OperationResult::Resource;
  changeRanges(file, *lock.owner, [&](LockHolder holder) { file.ranges.clear(holder, range); });
  lock.sequenceId = next(lock.sequenceId);
  id = idOf(lock.number, lock.sequenceId);
  return OperationResult::OK;
}

OperationResult StateTable::testLock(const FileKey& key, const Owner& owner,
                                     const RangeLock& wanted, LockDenied& denied) {
  return settle([&](std::uint64_t& objector) {
    const std::lock_guard lock(m_lock);
    const auto file = m_files.find(key);
    if (file == m_files.end()) return OperationResult::OK;
    const auto row = m_lockOwners.find(owner);
    return checkRange(file->second, owner, row == m_lockOwners.end() ? nullptr : &*row, wanted,
                      denied, objector);
  });
}

OperationResult StateTable::releaseLockOwner(const Owner& owner) {
  {
    const std::lock_guard lock(m_lock);
    const auto row = m_lockOwners.find(owner);
    if (row != m_lockOwners.end()) {
      if (row->second.ranges != 0) return OperationResult::LocksHeld;
      const std::set<std::uint64_t> states = row->second.states;
      for (const std::uint64_t number : states) eraseLock(number);
    }
  }
  m_sequences.forget({Kind::Lock, owner});
  return OperationResult::OK;
}

// ---- Clients and exports

bool StateTable::hasState(std::uint64_t clientId) const {
  const std::lock_guard lock(m_lock);
  return m_clients.contains(clientId);
}

bool StateTable::wasRevoked(std::uint64_t clientId) const {
  if (!m_hasRevoked) return false;
  const std::lock_guard lock(m_lock);
  return m_revokedFrom.contains(clientId);
}

void StateTable::forgetRevoked(std::map<std::uint64_t, std::uint64_t>::iterator revoked) {
  const auto count = m_revokedFrom.find(revoked->second);
  if (--count->second == 0) m_revokedFrom.erase(count);
  m_revoked.erase(revoked);
  m_hasRevoked = !m_revoked.empty();
}

void StateTable::rememberRevoked(std::uint64_t number, std::uint64_t clientId) {
  if (m_revoked.size() == kMaxRevoked) forgetRevoked(m_revoked.begin());
  m_revoked.emplace(number, clientId);
  ++m_revokedFrom[clientId];
  m_hasRevoked = true;
}

void StateTable::revoke(std::uint64_t clientId) {
  {
    std::vector<Held> held;  // released after the lock
    const std::lock_guard lock(m_lock);
    for (const std::uint64_t number : of(clientId).opens) {
      rememberRevoked(number, clientId);
      for (const auto& [owner, state] : m_opens.at(number).locks) rememberRevoked(state, clientId);
    }
    held = eraseAllOf(clientId);
  }
  m_sequences.dropClient(clientId);
}

void StateTable::dropClient(std::uint64_t clientId) {
  {
    std::vector<Held> held;  // released after the lock
    const std::lock_guard lock(m_lock);
    held = eraseAllOf(clientId);
    if (m_revokedFrom.erase(clientId) != 0) {
      std::erase_if(m_revoked, [&](const auto& row) { return row.second == clientId; });
      m_hasRevoked = !m_revoked.empty();
    }
  }
  m_sequences.dropClient(clientId);
}

void StateTable::dropFileSystem(std::uint32_t fileSystemId) {
  std::vector<Held> held;  // released after the lock
  const std::lock_guard lock(m_lock);
  const auto first = [&] { return m_files.lower_bound({fileSystemId, 0}); };
  for (auto file = first(); file != m_files.end() && file->first.fileSystemId == fileSystemId;
       file = first()) {
    held.push_back(eraseOpen(file->second.opens.begin()->second->number));
  }
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
