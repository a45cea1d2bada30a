#pragma once

#include "nfs4/call.h"

#include <span>
#include <string_view>

namespace nfslib::nfs4 {

// When an operation runs.
enum class Rule {
  Any,
  Write,  // on servers whose exports may be changed
  Alone,  // not as the first of several
  First,  // as the first only
};

// What a result has behind a status that is not 0.
enum class FailureBody { None, EmptyBitmap };

struct Operation {
  unsigned number = 0;
  std::string_view name;  // as in RFC 7530 and RFC 5661
  Rule rule = Rule::Any;
  nfs::OperationResult (*execute)(Call& call) = nullptr;
  FailureBody failureBody = FailureBody::None;
};

constexpr unsigned kFirstOperation = 3;
constexpr unsigned kLastOperation = 58;
constexpr unsigned kIllegalOperation = 10044;  // OP_ILLEGAL

// The operations that are served, by ascending number.
std::span<const Operation> operationTable();
// The row of `number`, nullptr when that operation is not served.
const Operation* findOperation(unsigned number);
// Whether the operation is one that comes before there is a session.
bool needsNoSession(unsigned number);

}  // namespace nfslib::nfs4
