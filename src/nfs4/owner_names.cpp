#include "nfs4/owner_names.h"

#include <array>
#include <charconv>

#include <grp.h>
#include <pwd.h>

namespace nfslib::nfs4 {

namespace {

constexpr std::size_t kLongestName = 256;  // bytes, of what is looked up
constexpr std::size_t kRecord = 16'384;    // bytes; groups with more members than fit are not found

// The number that `text` is, or else what `lookUp` finds for the name.
template <class LookUp>
std::optional<std::uint32_t> find(const std::string& text, const LookUp& lookUp) {
  std::uint32_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc() && at == end) return number;
  const std::string name = text.substr(0, text.find('@'));
  if (name.empty() || name.size() > kLongestName || name.find('\0') != name.npos) {
    return std::nullopt;
  }
  std::array<char, kRecord> room;
  return lookUp(name.c_str(), room);
}

}  // namespace

std::optional<std::uint32_t> findUser(const std::string& text) {
  return find(text, [](const char* name, auto& room) -> std::optional<std::uint32_t> {
    struct passwd user {};
    struct passwd* found = nullptr;
    ::getpwnam_r(name, &user, room.data(), room.size(), &found);
    if (found == nullptr) return std::nullopt;
    return found->pw_uid;
  });
}

std::optional<std::uint32_t> findGroup(const std::string& text) {
  return find(text, [](const char* name, auto& room) -> std::optional<std::uint32_t> {
    struct group group {};
    struct group* found = nullptr;
    ::getgrnam_r(name, &group, room.data(), room.size(), &found);
    if (found == nullptr) return std::nullopt;
    return found->gr_gid;
  });
}

}  // namespace nfslib::nfs4
