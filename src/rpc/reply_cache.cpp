#include "rpc/reply_cache.h"

#include <utility>

namespace nfslib::rpc {

ReplyCache::Turn::Turn(ReplyCache& cache, const Key& key) : m_cache(cache), m_key(key) {
  auto own = std::make_shared<Call>();
  std::unique_lock lock(cache.m_lock);
  cache.dropOutdated();
  for (;;) {
    const auto [entry, isNew] = cache.m_calls.try_emplace(key, own);
    if (isNew) {
      m_served = std::move(own);
      return;
    }
    // Held here, since the entry may go while this turn waits.
    const std::shared_ptr<Call> call = entry->second;
    cache.m_over.wait(lock, [&] { return call->isOver; });
    if (call->reply) {
      m_reply = call->reply;
      return;
    }
  }
}

ReplyCache::Turn::~Turn() {
  if (!m_served) return;
  {
    const std::lock_guard lock(m_cache.m_lock);
    m_served->isOver = true;
    m_cache.m_calls.erase(m_key);
  }
  m_cache.m_over.notify_all();
}

void ReplyCache::Turn::keep(memory::const_buffer reply) {
  auto kept = std::make_shared<const Reply>(reply.begin(), reply.end());
  {
    const std::lock_guard lock(m_cache.m_lock);
    m_cache.m_answered.push_back(&*m_cache.m_calls.find(m_key));
    m_served->reply = std::move(kept);
    m_served->since = m_cache.m_limits.now();
    m_served->isOver = true;
    m_cache.m_bytes += costOf(*m_served);
    m_served.reset();
    while (m_cache.m_bytes > m_cache.m_limits.bytes ||
           m_cache.m_answered.size() > m_cache.m_limits.replies) {
      m_cache.dropOldest();
    }
  }
  m_cache.m_over.notify_all();
}

std::size_t ReplyCache::costOf(const Call& call) {
  return call.reply->size() + sizeof(Reply) + sizeof(Call) + sizeof(Calls::value_type);
}

void ReplyCache::dropOldest() {
  const Calls::value_type* oldest = m_answered.front();
  m_answered.pop_front();
  m_bytes -= costOf(*oldest->second);
  m_calls.erase(m_calls.find(oldest->first));
}

void ReplyCache::dropOutdated() {
  const Clock::time_point now = m_limits.now();
  while (!m_answered.empty() && now - m_answered.front()->second->since > m_limits.age) {
    dropOldest();
  }
}

}  // namespace nfslib::rpc
