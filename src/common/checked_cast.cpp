#include "common/checked_cast.h"

#include "common/log.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include <cxxabi.h>

namespace nfslib::utility {

namespace {

std::string nameOf(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return name ? name.get() : type.name();
}

}  // namespace

void throwBadCast(const std::type_info& from, const std::type_info& to) {
  throw std::runtime_error(
      message("Unable to cast value from [%1] to [%2].", nameOf(from), nameOf(to)));
}

}  // namespace nfslib::utility
