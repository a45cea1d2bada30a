#include <nfslib/exception.h>

namespace nfslib {

// Defined here so that the types have one home, and a catch in another library finds them.
INfsException::~INfsException() = default;

SystemNfsException::SystemNfsException(std::error_code code, const std::string& what)
    : INfsException(what), m_code(code) {}
SystemNfsException::SystemNfsException(int error, const std::string& what)
    : SystemNfsException(std::error_code(error, std::generic_category()), what) {}
SystemNfsException::~SystemNfsException() = default;

OutOfSpaceNfsException::OutOfSpaceNfsException(const std::string& what, int error)
    : SystemNfsException(error, what) {}
OutOfSpaceNfsException::~OutOfSpaceNfsException() = default;

}  // namespace nfslib
