#pragma once

#include "common/credential.h"
#include "common/memory_stream.h"
#include "common/profile.h"

#include <span>
#include <string_view>

namespace nfslib {
class NfsService;
}  // namespace nfslib

namespace nfslib::nfs3 {

// All that a procedure may need of one call.
struct Call {
  MemoryStream& stream;
  NfsService& service;
  const rpc::AuthOpaque& caller;
  bool writeEnabled = false;
};

// What a procedure does to the tree. Doing one that changes it once more comes to the same, unless
// it has to be done once: then it would fail, or undo what came in between. (WRITE puts the same
// bytes in the same place.)
enum class Effect { Reads, Changes, ChangesOnce };

struct Procedure {
  unsigned number = 0;
  std::string_view name;  // as in RFC 1813
  Effect effect = Effect::Reads;
  // The words behind the status of a failure, each saying that no attributes follow: one for a
  // post_op_attr, two for a wcc_data.
  unsigned failureFlags = 0;
  void (*execute)(const Call& call) = nullptr;
};

// The procedures that are served, by ascending number. In the classic profile every failure has one
// flag, no procedure is known to change anything, and a server that serves read-only leaves it to
// the host to refuse changes.
std::span<const Procedure> procedureTable(const Profile& profile = {});

// The row of `number`, nullptr when that procedure is not served.
const Procedure* findProcedure(unsigned number, const Profile& profile = {});

}  // namespace nfslib::nfs3
