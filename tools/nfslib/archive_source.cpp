#include "archive_source.h"

#include <nfslib/hosts/archive_file_system.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <unistd.h>

namespace nfslib::tool {

namespace {

using hosts::ArchiveProgress;

// What the pass over an archive is ended with.
struct Stopped : std::exception {};

// A line on the terminal that says how far the pass is, while it lives.
class ProgressLine {
 public:
  explicit ProgressLine(bool isShown) : m_isShown(isShown) {}
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;
  ~ProgressLine() {
    if (m_next > Clock::time_point()) std::cerr << "\r\x1b[K" << std::flush;
  }

  void show(const ArchiveProgress& now) {
    if (!m_isShown || Clock::now() < m_next) return;
    constexpr std::size_t kWidth = 30;
    constexpr std::chrono::milliseconds kInterval{100};
    m_next = Clock::now() + kInterval;
    const double done = now.fileBytes == 0 ? 1
                                           : static_cast<double>(now.bytesRead) /
                                                 static_cast<double>(now.fileBytes);
    const auto filled = static_cast<std::size_t>(std::clamp(done, 0.0, 1.0) * kWidth);
    std::cerr << "\r[" << std::string(filled, '#') << std::string(kWidth - filled, ' ') << "] "
              << static_cast<int>(done * 100) << "%, " << now.entries << " entries, "
              << (now.bytesRead >> 20U) << " of " << (now.fileBytes >> 20U) << " MiB\x1b[K"
              << std::flush;
  }

 private:
  using Clock = std::chrono::steady_clock;

  const bool m_isShown;
  Clock::time_point m_next;
};

// The name of the file without what says that it is an archive.
std::string shortName(const std::string& path) {
  constexpr std::array<std::string_view, 19> suffixes{
      ".tar", ".cpio", ".zip", ".7z",  ".iso", ".gz",   ".bz2", ".xz",  ".zst", ".lz",
      ".lz4", ".lzma", ".Z",   ".tgz", ".tbz", ".tbz2", ".txz", ".tlz", ".tzst"};
  std::string name = std::filesystem::path(path).filename().string();
  const auto cut = [&](std::string_view suffix) {
    if (name.size() <= suffix.size() || !name.ends_with(suffix)) return false;
    name.resize(name.size() - suffix.size());
    return true;
  };
  while (std::any_of(suffixes.begin(), suffixes.end(), cut)) {
  }
  return name;
}

// Null when it was stopped.
std::unique_ptr<hosts::ArchiveFileSystem> openWatched(const SourceOptions& options) {
  ProgressLine line(isatty(STDERR_FILENO) != 0);
  hosts::ArchiveOptions archive;
  archive.cacheBytes = options.archiveCache;
  archive.progress = [&](const ArchiveProgress& now) {
    if (options.isStopped && options.isStopped()) throw Stopped();
    line.show(now);
  };
  try {
    return std::make_unique<hosts::ArchiveFileSystem>(options.text, archive);
  } catch (const Stopped&) {
    return nullptr;
  }
}

}  // namespace

bool isArchiveFile(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(path, error);
}

std::optional<Source> openArchive(const SourceOptions& options) {
  if (options.writable) {
    throw std::runtime_error(
        options.text +
        " is a file, and an archive cannot be changed; leave out --rw, or name "
        "a directory to serve.");
  }
  auto tree = openWatched(options);
  if (!tree) return std::nullopt;
  if (const std::uint64_t problems = tree->problems(); problems != 0) {
    std::cerr << "nfslib: " << options.text << " has " << problems
              << (problems == 1 ? " problem" : " problems")
              << "; what can be read is served, and --log-level warn tells what cannot.\n";
  }
  return Source{std::string("/").append(shortName(options.text)), std::move(tree)};
}

}  // namespace nfslib::tool
