#pragma once

#include "common/xdr_records.h"
#include "nfs4/call.h"
#include "nfs4/state_table.h"

#include <cstdint>

namespace nfslib::nfs4 {

// How a call's stateids, owners and objects lead into the StateTable.

constexpr std::uint64_t kNoClient = 0;  // of a session: minor version 0

// Stateids that stand for no open, RFC 7530 section 9.1.4.3 and RFC 8881 section 8.2.3.
bool isAnonymous(const FsObjectStateId& id);
bool isBypass(const FsObjectStateId& id);

StateTable::FileKey keyOf(const NfsHandle& handle);
// The stateid, or the one that the COMPOUND itself has come by. Its client is heard of by that
// (RFC 7530 section 9.5; in a session by SEQUENCE).
StateTable::Reference referenceOf(const Call& call, const FsObjectStateId& id);
void setCurrentStateId(const Call& call, const FsObjectStateId& id);

// What is due for a stateid that the operation has no use for, be it as good as it may.
nfs::OperationResult statusOfUseless(const Call& call, const FsObjectStateId& id);

// Whether the owner is one of a client that there is. In a session it is of the session's client,
// whatever the arguments say.
nfs::OperationResult statusOfOwner(const Call& call, StateOwner& owner);

}  // namespace nfslib::nfs4
