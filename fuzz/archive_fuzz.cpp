// Any bytes as an archive file: the tree that comes of it can be walked and read, and a place reads
// the same whoever asks, in whatever order.

#include <nfslib/exception.h>
#include <nfslib/hosts/archive_file_system.h>

#include "check.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using nfslib::Directory;
using nfslib::DirEntry;
using nfslib::File;
using nfslib::FileType;
using nfslib::MetaData;
using nfslib::hosts::ArchiveFileSystem;

constexpr std::size_t kCacheBytes = std::size_t{8} << 20;
constexpr std::size_t kMostObjects = 2000;  // that are looked at
constexpr std::size_t kMostRead = 24;       // files
constexpr std::uint64_t kMostFromFront = std::uint64_t{6} << 20;
constexpr std::uint64_t kPiece = 300'000;  // no multiple of what is decoded at a time

// The path of a file that holds `data`, until this is called again.
std::string fileOf(const std::uint8_t* data, std::size_t size) {
  static const int file = ::memfd_create("archive", MFD_CLOEXEC);
  FUZZ_CHECK(file >= 0);
  FUZZ_CHECK(::ftruncate(file, 0) == 0);
  FUZZ_CHECK(::pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
  return "/proc/self/fd/" + std::to_string(file);
}

std::unique_ptr<ArchiveFileSystem> opened(const std::string& path) {
  try {
    return std::make_unique<ArchiveFileSystem>(
        path, nfslib::hosts::ArchiveOptions{.cacheBytes = kCacheBytes});
  } catch (const nfslib::SystemNfsException&) {
    return nullptr;  // it is none, or nothing in it can be read
  }
}

void checkEntry(Directory& directory, const DirEntry& entry) {
  FUZZ_CHECK(!entry.name.empty() && entry.name.size() <= 255);
  FUZZ_CHECK(entry.name != "." && entry.name != "..");
  FUZZ_CHECK(entry.name.find('/') == std::string::npos);
  FUZZ_CHECK(entry.metaData.linkCount > 0 && entry.metaData.type != 0);
  const std::optional<DirEntry> again = directory.TryGetEntryByName(entry.name);
  FUZZ_CHECK(again && again->metaData == entry.metaData);
  if (!isType(entry.metaData, FileType::SymbolicLink)) return;
  FUZZ_CHECK(directory.OpenSymlink(entry.name)->GetTarget().size() == entry.metaData.size);
}

struct Found {
  std::shared_ptr<Directory> directory;
  std::string name;

  std::shared_ptr<File> open() const { return directory->OpenFile(name); }
};

// The files of the tree, in its order.
std::vector<Found> filesOf(ArchiveFileSystem& tree) {
  std::vector<Found> files;
  std::vector<std::shared_ptr<Directory>> directories{tree.OpenRoot()};
  std::size_t objects = 0;
  while (!directories.empty()) {
    const auto directory = directories.back();
    directories.pop_back();
    std::string last;
    for (const auto it = directory->Enumerate(); it->IsValid(); it->MoveNext()) {
      if (++objects > kMostObjects) return files;
      const DirEntry& entry = it->Current();
      FUZZ_CHECK(last < entry.name);  // so none comes twice
      last = entry.name;
      checkEntry(*directory, entry);
      if (isType(entry.metaData, FileType::Directory)) {
        directories.push_back(directory->OpenSubdir(entry.name));
      }
      if (isType(entry.metaData, FileType::Regular) && files.size() < kMostRead) {
        files.push_back({directory, entry.name});
      }
    }
  }
  return files;
}

// The bytes of one read, nothing when it fails.
using Bytes = std::optional<std::vector<std::uint8_t>>;
struct Read {
  std::size_t file = 0;
  std::uint64_t offset = 0;
  Bytes bytes{};
};

Bytes read(const Found& found, std::uint64_t offset) {
  const auto file = found.open();
  const std::uint64_t size = file->GetMetaData().size;
  std::vector<std::uint8_t> bytes(std::min(kPiece, size - offset));
  try {
    FUZZ_CHECK(file->Read(offset, bytes.data(), bytes.size()) == bytes.size());
  } catch (const nfslib::SystemNfsException&) {
    return std::nullopt;
  }
  return bytes;
}

// Of each file from front to back, at its end and somewhere else.
std::vector<Read> readAll(const std::vector<Found>& files, std::uint32_t seed) {
  std::minstd_rand random(seed);
  std::vector<Read> reads;
  std::uint64_t left = kMostFromFront;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const std::uint64_t size = files[i].open()->GetMetaData().size;
    if (size == 0) continue;
    std::uint64_t offset = 0;
    for (; offset < size; offset += kPiece) {
      Read made{i, offset, read(files[i], offset)};
      const bool isDone = !made.bytes || left < kPiece;
      left -= std::min(left, std::min(kPiece, size - offset));
      reads.push_back(std::move(made));
      if (isDone) break;
    }
    for (const std::uint64_t at : {size - std::min<std::uint64_t>(size, 70'000), random() % size}) {
      reads.push_back({i, at, read(files[i], at)});
    }
    std::uint8_t none = 0;
    FUZZ_CHECK(files[i].open()->Read(size, &none, 1) == 0);
  }
  return reads;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = fileOf(data, size);
  const auto tree = opened(path);
  if (!tree) return 0;
  const auto files = filesOf(*tree);
  const std::vector<Read> reads = readAll(files, static_cast<std::uint32_t>(size) + 1);

  // Backwards, so from other restart points, with other readers and blocks at hand.
  const auto other = opened(path);
  FUZZ_CHECK(other && other->problems() == tree->problems());
  const auto otherFiles = filesOf(*other);
  FUZZ_CHECK(otherFiles.size() == files.size());
  for (auto it = reads.rbegin(); it != reads.rend(); ++it) {
    FUZZ_CHECK(otherFiles[it->file].name == files[it->file].name);
    FUZZ_CHECK(read(otherFiles[it->file], it->offset) == it->bytes);
    FUZZ_CHECK(read(files[it->file], it->offset) == it->bytes);
  }
  return 0;
}
