#pragma once

#include <typeinfo>
#include <utility>

namespace nfslib::utility {

[[noreturn]] void throwBadCast(const std::type_info& from, const std::type_info& to);

// `value` as another whole number type; throws std::runtime_error when that cannot hold it.
template <class To, class From>
To checkedCast(From value) {
  if (!std::in_range<To>(value)) throwBadCast(typeid(From), typeid(To));
  return static_cast<To>(value);
}

}  // namespace nfslib::utility
