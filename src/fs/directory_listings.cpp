#include "fs/directory_listings.h"

#include "common/statistics.h"
#include "fs/entry_name.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace nfslib {

namespace {

// A cookie has the number of the listing above the place of the entry, and stays below 2^62.
constexpr unsigned kPlaceBits = 40;
constexpr std::uint64_t kPlaceMask = (std::uint64_t{1} << kPlaceBits) - 1;
constexpr std::uint32_t kNumbers = 1U << 22U;
constexpr std::uint64_t kReserved = 2;  // cookies of "." and ".."

bool isStart(std::uint64_t cookie) { return cookie <= kReserved; }
std::uint32_t numberOf(std::uint64_t cookie) {
  return static_cast<std::uint32_t>((cookie >> kPlaceBits) % kNumbers);
}
// How many entries come before the place and at it.
std::uint64_t ordinalOf(std::uint64_t cookie) {
  const std::uint64_t place = cookie & kPlaceMask;
  return place - std::min(place, kReserved);
}
std::uint64_t cookieOf(std::uint32_t number, std::uint64_t ordinal) {
  return std::uint64_t{number} << kPlaceBits | (ordinal + kReserved);
}

}  // namespace

// Gives the listing up when the call fails: nobody knows where its pass stands.
class DirectoryListings::Use {
 public:
  Use(DirectoryListings& all, std::uint64_t fileId, std::uint64_t cookie)
      : m_all(all), m_listing(all.take(fileId, cookie)), m_number(m_listing.front().number) {}
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  ~Use() {
    if (!m_keep) m_listing.clear();
    m_all.giveBack(m_number, std::move(m_listing));
  }

  Listing* operator->() { return &m_listing.front(); }
  void keep() { m_keep = true; }

 private:
  DirectoryListings& m_all;
  Listings m_listing;  // exactly one
  const std::uint32_t m_number;
  bool m_keep = false;
};

bool DirectoryListings::list(const std::shared_ptr<Directory>& dir, std::uint64_t fileId,
                             std::uint64_t cookie, const Visit& visit) {
  Use listing(*this, fileId, cookie);
  std::uint64_t ordinal = isStart(cookie) ? 0 : ordinalOf(cookie);
  const bool isForgotten = ordinal < listing->names.size() && !listing->names.has(ordinal);
  bool isOld =
      listing->isBegun && !isForgotten;  // what the pass stands on was read for a page before
  if (!isOld) {
    listing->isBegun = true;
    listing->names = {};
    listing->pass = iterate(dir);
  }
  // Every entry behind the pass's place comes through here.
  const auto goOn = [&](const auto& takes) {
    for (DirectoryIterator& pass = listing->pass; pass; ++pass) {
      if (isSelfOrParent(pass->name)) continue;
      if (!takes(*pass)) return false;
      // One listing alone never fills all the room there is, so it stays when others go.
      listing->names.add(pass->name, m_limits.bytes / 2);
    }
    return true;
  };

  // The client may name any cookie; there are no more steps than entries.
  goOn([&](const DirEntry&) { return listing->names.size() < ordinal; });

  for (; ordinal < listing->names.size(); ++ordinal) {
    const std::string name(listing->names.at(ordinal));
    const std::optional<DirEntry> entry = dir->TryGetEntryByName(name);
    if (entry && visit(name, entry->metaData, cookieOf(listing->number, ordinal + 1))) {
      listing.keep();
      return false;
    }
  }
  const bool isComplete = goOn([&](const DirEntry& entry) {
    const std::uint64_t next = cookieOf(listing->number, listing->names.size() + 1);
    if (!std::exchange(isOld, false)) return !visit(entry.name, entry.metaData, next);
    const std::optional<DirEntry> fresh = dir->TryGetEntryByName(entry.name);
    return !fresh || !visit(entry.name, fresh->metaData, next);
  });
  listing.keep();
  return isComplete;
}

DirectoryListings::Listings DirectoryListings::take(std::uint64_t fileId, std::uint64_t cookie) {
  Listings taken;
  taken.emplace_back();
  taken.front().fileId = fileId;
  std::unique_lock lock(m_lock);
  if (isStart(cookie)) {
    taken.front().number = m_nextNumber;
    m_used.push_back(m_nextNumber);
    m_nextNumber = (m_nextNumber + 1) % kNumbers;
    return taken;
  }
  const std::uint32_t number = taken.front().number = numberOf(cookie);
  m_givenBack.wait(lock, [&] { return std::ranges::find(m_used, number) == m_used.end(); });
  m_used.push_back(number);
  const auto at = std::ranges::find_if(m_listings, [&](const Listing& listing) {
    return listing.number == number && listing.fileId == fileId;
  });
  statistics::countLookUp(statistics::Cache::Listings, at != m_listings.end());
  if (at == m_listings.end()) return taken;
  taken.clear();
  taken.splice(taken.begin(), m_listings, at);
  m_bytes -= at->names.bytes();
  if (!at->pass) --m_complete;
  return taken;
}

void DirectoryListings::giveBack(std::uint32_t number, Listings listing) {
  Listings dropped;  // destroyed after the lock: closing a pass is a call of the host
  {
    const std::lock_guard lock(m_lock);
    m_used.erase(std::ranges::find(m_used, number));
    if (!listing.empty()) {
      m_bytes += listing.front().names.bytes();
      if (!listing.front().pass) ++m_complete;
      m_listings.splice(m_listings.begin(), listing);
    }
    makeRoom(dropped);
  }
  m_givenBack.notify_all();
}

DirectoryListings::Listings::iterator DirectoryListings::oldest(bool isComplete) {
  const auto at = std::find_if(m_listings.rbegin(), m_listings.rend(),
                               [&](const Listing& listing) { return !listing.pass == isComplete; });
  return std::prev(at.base());
}

void DirectoryListings::makeRoom(Listings& dropped) {
  const auto drop = [&](Listings::iterator victim) {
    m_bytes -= victim->names.bytes();
    if (!victim->pass) --m_complete;
    dropped.splice(dropped.begin(), m_listings, victim);
  };
  if (m_complete > m_limits.completeListings) drop(oldest(true));
  if (m_listings.size() - m_complete > m_limits.openPasses) drop(oldest(false));
  while (m_bytes > m_limits.bytes) drop(std::prev(m_listings.end()));
}

}  // namespace nfslib
