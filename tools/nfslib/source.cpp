#include "source.h"

#include <nfslib/hosts/memory_file_system.h>
#include <nfslib/hosts/posix_file_system.h>
#include <nfslib/hosts/read_only_file_system.h>
#include <nfslib/nfs_server.h>

#include "archive_source.h"

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

std::unique_ptr<FileSystem> guarded(std::unique_ptr<FileSystem> tree, bool writable) {
  if (writable) return tree;
  return std::make_unique<hosts::ReadOnlyFileSystem>(std::move(tree));
}

Source directorySource(const std::string& path, bool writable) {
  auto tree = std::make_unique<hosts::PosixFileSystem>(path);
  hosts::PosixFileSystem& directory = *tree;
  Source source{std::string("/").append(nameOf(path)), guarded(std::move(tree), writable)};
  directory.watchChanges([exported = source.tree.get()](const Invalidation& what) {
    NfsServer::instance().invalidate(*exported, what);
  });
  return source;
}

Source memorySource(std::uint64_t capacity, bool writable) {
  return {"/memory", guarded(std::make_unique<hosts::MemoryFileSystem>(capacity), writable)};
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

std::optional<Source> openSource(const SourceOptions& options) {
  const std::string& text = options.text;
  if (text == kMemory) return memorySource(kDefaultCapacity, options.writable);
  if (text.starts_with("memory:")) {
    return memorySource(parseSize(text.substr(kMemory.size() + 1)), options.writable);
  }
  if (isArchiveFile(text)) return openArchive(options);
  std::error_code error;
  const auto status = std::filesystem::status(text, error);
  if (!std::filesystem::exists(status)) {
    throw std::runtime_error(
        text + " does not exist; name a directory or an archive to serve, or 'memory'.");
  }
  if (!std::filesystem::is_directory(status)) {
    throw std::runtime_error(
        text + " is neither a directory nor an archive file; name one of them to serve.");
  }
  return directorySource(text, options.writable);
}

}  // namespace nfslib::tool
