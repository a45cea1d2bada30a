#pragma once

#include <stdexcept>
#include <string>

namespace nfslib::testing {

// The text of the std::runtime_error that `call` throws; "no failure" when it throws none.
template <class Call>
std::string failureOf(Call call) {
  try {
    call();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no failure";
}

}  // namespace nfslib::testing
