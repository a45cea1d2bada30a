#pragma once

#include <cstdint>
#include <optional>
#include <string>

// owner and owner_group of version 4 (RFC 7530 section 5.9) as clients send them: a number in
// decimal, or "name@domain" where the name is one of this system. Any domain is taken for its own.

namespace nfslib::nfs4 {

// Nothing when nobody has the name, or it is too long to be one.
std::optional<std::uint32_t> findUser(const std::string& text);
std::optional<std::uint32_t> findGroup(const std::string& text);

}  // namespace nfslib::nfs4
