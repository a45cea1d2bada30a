// A directory with two files, until standard input ends: mounted on the directory that is named,
// which needs root and the system's NFS client, or served to clients that need neither.
//
//   two_files [MOUNTPOINT]

#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_mounter.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>

#include "read_only.h"

#include <iostream>
#include <limits>
#include <map>

namespace {

struct Note : read_only::File {
  Note(std::uint64_t id, std::string words) : text(std::move(words)) {
    md = {.type = 1, .fileId = id, .size = text.size(), .linkCount = 1, .mode = 0444};
  }
  unsigned long Read(unsigned long offset, void* buffer, unsigned long length) override {
    return text.copy(static_cast<char*>(buffer), length, offset);
  }
  nfslib::MetaData GetMetaData() const override { return md; }

  std::string text;
  nfslib::MetaData md{};
};

struct Notes : read_only::Directory, nfslib::FileSystem, std::enable_shared_from_this<Notes> {
  std::shared_ptr<nfslib::Directory> OpenRoot() override { return shared_from_this(); }
  std::shared_ptr<nfslib::DirectoryEnumerator> Enumerate() const override {
    std::vector<nfslib::DirEntry> entries;
    for (const auto& [name, note] : notes) entries.push_back({name, note->md});
    return std::make_shared<read_only::Enumerator>(entries);
  }
  std::shared_ptr<nfslib::File> OpenFile(const std::string& name) override {
    if (!notes.contains(name)) none(name);
    return notes.at(name);
  }
  nfslib::MetaData GetMetaData() const override {
    return {.type = 2, .fileId = 1, .linkCount = 2, .mode = 0555};
  }

  std::map<std::string, std::shared_ptr<Note>> notes{
      {"hello.txt", std::make_shared<Note>(2, "Hello from a program's own tree.\n")},
      {"more.txt", std::make_shared<Note>(3, "No disk was read for this.\n")}};
};

void waitForEndOfInput() { std::cin.ignore(std::numeric_limits<std::streamsize>::max()); }

}  // namespace

int main(int argc, char** argv) try {
  const auto notes = std::make_shared<Notes>();
  const nfslib::NfsMountSpec spec{.skipAddressAlias = true};
  if (argc > 1) {
    const nfslib::NfsMounter mounted(argv[1], *notes, spec, nullptr);
    std::cout << "mounted " << argv[1] << std::endl;
    waitForEndOfInput();
  } else {
    nfslib::NfsServer& server = nfslib::NfsServer::instance();
    server.exportFileSystem(nfslib::NfsPath("/notes"), *notes, spec);
    std::cout << "nfs://127.0.0.1/notes/?nfsport=" << server.getNfsPort()
              << "&mountport=" << server.getMountPort() << std::endl;
    waitForEndOfInput();
    server.removeExport(nfslib::NfsPath("/notes"));
  }
} catch (const std::exception& e) {
  std::cerr << e.what() << '\n';
  return 1;
}
