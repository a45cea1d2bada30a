#include <nfslib/exception.h>

namespace nfslib {

// Defined here so that both types have one home, and a catch in another library finds them.
INfsException::~INfsException() = default;
OutOfSpaceNfsException::~OutOfSpaceNfsException() = default;

}  // namespace nfslib
