#include "nfs4/owner_sequences.h"

namespace nfslib::nfs4 {

namespace {

std::string keyOf(const OwnerSequences::Name& name) {
  return static_cast<char>(name.kind) + name.owner.name;
}

std::string keyOf(const FsObjectStateId& id) {
  return {reinterpret_cast<const char*>(id.other.bytes.data()), id.other.bytes.size()};
}

}  // namespace

std::shared_ptr<OwnerSequences::Record> OwnerSequences::take(const Name& name) {
  const std::string key = keyOf(name);
  std::unique_lock lock(m_lock);
  for (;;) {
    const auto records = m_records.find(name.owner.clientId);
    auto known = records == m_records.end() ? std::nullopt : records->second.find(key);
    if (!known) {
      if (m_count == kMaxOfAll) return nullptr;
      known = std::make_shared<Record>();
      Records& ofClient = m_records.try_emplace(name.owner.clientId, kMaxOfClient).first->second;
      if (!ofClient.set(key, *known)) ++m_count;
    }
    if (!(*known)->isTaken) {
      (*known)->isTaken = true;
      return *known;
    }
    m_given.wait(lock);  // the owner may be forgotten meanwhile
  }
}

void OwnerSequences::giveBack(const Name& name, Record& record) {
  {
    const std::lock_guard lock(m_lock);
    record.isTaken = false;
    if (!record.isUsed) erase(name, &record);
  }
  m_given.notify_all();
}

void OwnerSequences::erase(const Name& name, const Record* only) {
  const auto records = m_records.find(name.owner.clientId);
  if (records == m_records.end()) return;
  const auto known = records->second.find(keyOf(name));
  if (!known || (only != nullptr && known->get() != only)) return;
  records->second.erase(keyOf(name));
  --m_count;
  if (records->second.size() == 0) m_records.erase(records);
}

void OwnerSequences::forget(const Name& name) {
  const std::lock_guard lock(m_lock);
  erase(name, nullptr);
}

void OwnerSequences::dropClient(std::uint64_t clientId) {
  const std::lock_guard lock(m_lock);
  const auto records = m_records.find(clientId);
  if (records == m_records.end()) return;
  m_count -= records->second.size();
  m_records.erase(records);
}

void OwnerSequences::rememberClosed(const FsObjectStateId& id, const StateOwner& owner) {
  const std::lock_guard lock(m_lock);
  m_closed.set(keyOf(id), owner);
}

std::optional<StateOwner> OwnerSequences::closerOf(const FsObjectStateId& id) {
  const std::lock_guard lock(m_lock);
  return m_closed.find(keyOf(id));
}

}  // namespace nfslib::nfs4
