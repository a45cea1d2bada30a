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

// The minor versions that have an operation. The classic profile does not ask.
enum class Minors { All, Only0 };

// What the caller has to be allowed of the current object, where that is a directory, before the
// operation looks at its arguments. What more it takes is for the operation to ask.
enum class Needs {
  Nothing,
  List,
  Search,
  ChangeEntries,
  ChangeBoth,  // those of the saved object as well
};

// What a result has behind a status that is not 0.
enum class FailureBody { None, EmptyBitmap };

struct Operation {
  unsigned number = 0;
  std::string_view name;  // as in RFC 7530 and RFC 5661
  Rule rule = Rule::Any;
  nfs::OperationResult (*execute)(Call& call) = nullptr;
  Minors minors = Minors::All;
  FailureBody failureBody = FailureBody::None;
  Needs needs = Needs::Nothing;

  constexpr Operation needing(Needs what) const {
    Operation row = *this;
    row.needs = what;
    return row;
  }
};

constexpr unsigned kFirstOperation = 3;
constexpr unsigned kIllegalOperation = 10044;  // OP_ILLEGAL

// The operations that every profile serves, and those that the modern one has besides or instead,
// by ascending number.
std::span<const Operation> operationTable();
std::span<const Operation> modernOperationTable();
// The row of `number`, nullptr when the profile does not serve that operation.
const Operation* findOperation(const Profile& profile, unsigned number);
// The highest number that the minor version gives to an operation, served or not.
unsigned lastOperation(const Profile& profile, unsigned minorVersion);
// Whether the operation is one that comes before there is a session.
bool needsNoSession(unsigned number);

}  // namespace nfslib::nfs4
