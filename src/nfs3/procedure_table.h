#pragma once

#include "common/credential.h"
#include "common/memory_stream.h"

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

struct Procedure {
  unsigned number = 0;
  std::string_view name;  // as in RFC 1813
  void (*execute)(const Call& call) = nullptr;
};

// The procedures that are served, by ascending number.
std::span<const Procedure> procedureTable();

// The row of `number`, nullptr when that procedure is not served.
const Procedure* findProcedure(unsigned number);

}  // namespace nfslib::nfs3
