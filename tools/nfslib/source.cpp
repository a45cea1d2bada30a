#include "source.h"

#include <nfslib/hosts/memory_file_system.h>
#include <nfslib/hosts/posix_file_system.h>
#include <nfslib/hosts/read_only_file_system.h>

#include <charconv>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace nfslib::tool {

namespace {

constexpr std::string_view kMemory = "memory";
constexpr std::uint64_t kDefaultCapacity = 256ULL << 20U;

// The last component of the directory's real path, so that "." and "a/.." have a name as well.
std::string nameOf(const std::filesystem::path& directory) {
  std::error_code error;
  const std::string name = std::filesystem::canonical(directory, error).filename().string();
  return error || name.empty() ? "export" : name;
}

Source open(const std::string& text) {
  if (text == kMemory) {
    return {"/memory", std::make_unique<hosts::MemoryFileSystem>(kDefaultCapacity)};
  }
  if (text.starts_with("memory:")) {
    const std::uint64_t capacity = parseSize(text.substr(kMemory.size() + 1));
    return {"/memory", std::make_unique<hosts::MemoryFileSystem>(capacity)};
  }
  std::error_code error;
  const auto status = std::filesystem::status(text, error);
  if (!std::filesystem::exists(status)) {
    throw std::runtime_error(text + " does not exist; name a directory to serve, or 'memory'.");
  }
  if (!std::filesystem::is_directory(status)) {
    throw std::runtime_error(text + " is not a directory; name a directory to serve.");
  }
  return {std::string("/").append(nameOf(text)), std::make_unique<hosts::PosixFileSystem>(text)};
}

}  // namespace

std::uint64_t parseSize(const std::string& text) {
  constexpr std::string_view units = "KMGT";
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  unsigned shift = 0;
  if (rest != end) {
    const auto unit = units.find(*rest);
    shift = unit == units.npos || rest + 1 != end ? 64 : 10 * (static_cast<unsigned>(unit) + 1);
  }
  if (error != std::errc() || number == 0 || shift >= 64 ||
      number > std::numeric_limits<std::uint64_t>::max() >> shift) {
    throw std::invalid_argument(
        std::string("'").append(text).append("' is not a size of memory; write one such as 64M."));
  }
  return number << shift;
}

Source openSource(const std::string& text, bool writable) {
  Source source = open(text);
  if (!writable) {
    source.tree = std::make_unique<hosts::ReadOnlyFileSystem>(std::move(source.tree));
  }
  return source;
}

}  // namespace nfslib::tool
