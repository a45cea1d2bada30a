#pragma once

#include <nfslib/nfs_server_policy.h>

#include <cstdint>
#include <string>

namespace nfslib {

// What the profiles differ in, as far as it is a value: each is looked up in one place. What
// differs in kind is a row of the tables of procedures, operations and attributes, which are chosen
// by `isModern`.
struct Profile {
  bool isModern = false;
  std::uint32_t leaseSeconds = 600;
  // A call that comes again, and must not be done twice, gets the reply that it got first.
  bool repeatsReplies = false;
  // Operations are refused to those who have no right to them; owner, group and other have the bits
  // of their own, and nothing of the others'.
  bool checksRights = false;
  // How many supplementary groups of a caller count.
  unsigned groups = 10;

  // ---- What is shown of a tree

  // The change attribute of version 4 and the ctime of version 3 move with each change made through
  // the library, also within a second; replies to changes tell what the host has afterwards.
  bool countsChanges = false;
  // Cookies stay good while a directory changes; see DirectoryListings.
  bool remembersListings = false;
  // Listings of version 3 begin with "." and "..", whatever the host lists.
  bool listsSelfAndParent = false;
  // A page that has no room for an entry is refused as too small.
  bool refusesShortPages = false;
  // The host's statistics are passed on, where it has any.
  bool tellsStatistics = false;
  // Nothing that is there has fewer; a client takes 0 for an object that was removed.
  std::uint32_t fewestLinks = 0;

  // ---- Version 4

  // The longest name, in bytes.
  std::uint32_t longestName = 256;
  // The host's reason decides what is answered for an object that cannot be reached.
  bool tellsHostFailures = false;
  // What cannot be set is found out before anything is made.
  bool checksBeforeMaking = false;
  // OPEN refuses to reclaim what this start of the server never gave.
  bool refusesReclaims = false;
  // The longest request and reply of a session.
  std::uint32_t maxMessage = 0;
  // The longest reply that a slot keeps, and the slots of a session.
  std::uint32_t maxKeptReply = 0;
  std::uint32_t maxSlots = 0;
  // What a COMPOUND leaves as current and saved object is there for the next one.
  bool keepsObjects = false;
  // A change sets the host's times to those of this server's clock.
  bool stampsTimes = false;
  // The id of a client that is gone may become another's.
  bool reusesClientIds = false;
  // A client has a record once it has confirmed it, and goes when it has been silent for long.
  bool confirmsClients = false;
};

// Throws std::runtime_error when the policy asks for what nobody can serve.
Profile profileOf(const NfsServerPolicy& policy);

// How clients tell one start of the server from another, and this server from the next. The
// classic profile shows the same one always; the modern one is made anew for each start.
struct ServerIdentity {
  // writeverf3 and verifier4: a client that sees another one sends again what was not committed.
  std::uint64_t writeVerifier = 0;
  std::string owner;  // so_major_id of server_owner4
  std::string scope;  // eir_server_scope
  // Client ids count from here: those of another start are not taken for ours, nor two servers of
  // one host for one.
  std::uint64_t firstClientId = 1;
};

ServerIdentity identityFor(const Profile& profile);

}  // namespace nfslib
