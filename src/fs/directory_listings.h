#pragma once

#include <nfslib/directory_iterator.h>
#include <nfslib/file_system.h>

#include "fs/remembered_names.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <vector>

namespace nfslib {

// Listings whose cookies stay good while the directory changes.
//
// Each listing from the start is a pass of its own over the host's directory, with a number. A
// cookie is that number and the ordinal of its entry in the pass, from 3: 0 is the start, and 1 and
// 2, which clients keep for "." and "..", are taken for it. The names that were sent are
// remembered, so a client may go on behind any of them: what stood there is looked up anew, and
// left out when it is gone. Where the names end the pass goes on. So a client that removes what it
// has listed misses nothing, and one that steps back costs no walk.
//
// What is remembered is bounded, in names and in passes that the host keeps open, and the listing
// that was not used for longest goes first. A cookie of a listing that is gone is answered by a
// fresh pass with the old number, at the same ordinal.
//
// Thread-safe. A listing is used by one call at a time; a second one waits for the page of the
// first. No host call is made and no pass released under the lock.
class DirectoryListings {
 public:
  struct Limits {
    std::size_t openPasses = 64;          // listings that have not come to their end
    std::size_t completeListings = 1024;  // those that have
    std::size_t bytes = 64U << 20U;       // of names in all
  };
  // The entry and its cookie. True: it does not fit the page.
  using Visit = std::function<bool(const std::string&, const MetaData&, std::uint64_t)>;

  DirectoryListings() : DirectoryListings(Limits{}) {}
  explicit DirectoryListings(const Limits& limits) : m_limits(limits) {}

  // Calls `visit` with the entries behind the one with the cookie, but for "." and "..", until it
  // returns true, and returns whether the listing is complete. `dir` is the directory with that
  // id; what it throws, and `visit`, passes out and costs the listing.
  bool list(const std::shared_ptr<Directory>& dir, std::uint64_t fileId, std::uint64_t cookie,
            const Visit& visit);

 private:
  struct Listing {
    std::uint32_t number = 0;
    std::uint64_t fileId = 0;
    bool isBegun = false;
    DirectoryIterator pass;  // at the entry behind the last name; at the end when it is complete
    RememberedNames names;
  };
  using Listings = std::list<Listing>;

  // The only user of the listing for its own life.
  class Use;

  // The listing that the cookie is of, or one that is yet to begin, alone in a list.
  Listings take(std::uint64_t fileId, std::uint64_t cookie);
  // Ends the use of the listing with that number, and keeps `listing` unless it is empty.
  void giveBack(std::uint32_t number, Listings listing);
  // The oldest of the complete or of the open ones. Under the lock.
  Listings::iterator oldest(bool isComplete);
  void makeRoom(Listings& dropped);

  const Limits m_limits;
  std::mutex m_lock;  // guards what follows; nothing else is locked under it
  std::condition_variable m_givenBack;
  Listings m_listings;                // newest first, not in use
  std::vector<std::uint32_t> m_used;  // the numbers of those in use
  std::size_t m_complete = 0;         // of m_listings
  std::size_t m_bytes = 0;            // of the names in m_listings
  std::uint32_t m_nextNumber = 0;
};

}  // namespace nfslib
