// Two files that are nowhere stored: their bytes are computed when somebody reads them.
#include "read_only.h"
#include "serve.h"

#include <map>

namespace {

// The same line ten thousand times.
struct Lines : read_only::File {
  Lines(std::uint64_t id, const std::string& text)
      : line(text), md{.type = 1, .fileId = id, .size = 10'000 * line.size(), .mode = 0444} {}
  unsigned long Read(unsigned long offset, void* buffer, unsigned long length) override {
    char* const bytes = static_cast<char*>(buffer);
    for (auto i = 0UL; i < length; ++i) bytes[i] = line[(offset + i) % line.size()];
    return length;
  }
  nfslib::MetaData GetMetaData() const override { return md; }
  const std::string line;
  const nfslib::MetaData md;
};

struct Tree : read_only::Directory, nfslib::FileSystem, std::enable_shared_from_this<Tree> {
  std::shared_ptr<nfslib::Directory> OpenRoot() override { return shared_from_this(); }
  std::shared_ptr<nfslib::DirectoryEnumerator> Enumerate() const override {
    std::vector<nfslib::DirEntry> entries;
    for (const auto& [name, file] : files) entries.push_back({name, file->md});
    return std::make_shared<read_only::Enumerator>(entries);
  }
  std::optional<nfslib::DirEntry> TryGetEntryByName(Name name) const override {
    if (!files.contains(name)) return std::nullopt;
    return nfslib::DirEntry{name, files.at(name)->md};
  }
  std::shared_ptr<nfslib::File> OpenFile(Name name) override {
    if (!files.contains(name)) read_only::none(name);
    return files.at(name);
  }
  nfslib::MetaData GetMetaData() const override { return {.type = 2, .fileId = 1, .mode = 0555}; }
  const std::map<std::string, std::shared_ptr<Lines>> files{
      {"letters.txt", std::make_shared<Lines>(2, "abcdefghijklmnopqrstuvwxyz\n")},
      {"digits.txt", std::make_shared<Lines>(3, "0123456789\n")}};
};

}  // namespace

int main() { return serve(*std::make_shared<Tree>(), {.skipAddressAlias = true}); }
