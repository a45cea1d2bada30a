// Compares an export with a local directory, through a client library that is not ours.
//
//   libnfs_compare [--progress] URL DIRECTORY
//
// Walks the whole export: names both ways, and of each object its type, permission bits, owner,
// number of links and size as LOOKUP and as the listing tell them, the target of each symbolic link
// and every byte of each file. Prints what differs and a line that counts what was compared; status
// 0 when nothing differs. With --progress it tells meanwhile how far it is.

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <nfsc/libnfs.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t kTransfer = 1 << 20;
constexpr int kReportedDifferences = 20;

struct Counts {
  unsigned long directories = 0, files = 0, links = 0, others = 0, bytes = 0;
  int differences = 0;
};

class Comparison {
 public:
  // With `expectedFiles` other than 0 it tells how many of them are done.
  Comparison(const char* url, unsigned long expectedFiles)
      : m_nfs(nfs_init_context()),
        m_listsIds(std::strstr(url, "version=4") == nullptr),
        m_expectedFiles(expectedFiles) {
    if (!m_nfs) throw std::runtime_error("no libnfs context");
    const std::unique_ptr<nfs_url, decltype(&nfs_destroy_url)> parsed(
        nfs_parse_url_dir(m_nfs.get(), url), &nfs_destroy_url);
    if (!parsed) throw std::runtime_error(nfs_get_error(m_nfs.get()));
    if (nfs_mount(m_nfs.get(), parsed->server, parsed->path) != 0) {
      throw std::runtime_error(nfs_get_error(m_nfs.get()));
    }
  }

  // `path` is the object's path in the export, "" for the root.
  void directory(const std::string& path, const std::string& local) {
    ++m_counts.directories;
    const std::string remote = path.empty() ? "/" : path;
    nfsdir* opened = nullptr;
    if (nfs_opendir(m_nfs.get(), remote.c_str(), &opened) != 0) return failed(remote, "opendir");
    const auto close = [this](nfsdir* dir) { nfs_closedir(m_nfs.get(), dir); };
    const std::unique_ptr<nfsdir, decltype(close)> dir(opened, close);

    std::set<std::string> missing;
    for (const auto& entry : std::filesystem::directory_iterator(local)) {
      missing.insert(entry.path().filename().string());
    }
    std::set<std::string> seen;
    std::vector<std::string> subdirectories;
    while (const nfsdirent* entry = nfs_readdir(m_nfs.get(), dir.get())) {
      const std::string name = entry->name;
      if (name == "." || name == "..") continue;
      if (!seen.insert(name).second) differs(path + "/" + name, "is listed twice");
      if (missing.erase(name) == 0) {
        differs(path + "/" + name, "is listed and not there");
        continue;
      }
      struct stat expected {};
      if (lstat((local + "/" + name).c_str(), &expected) != 0) continue;
      if (m_listsIds && entry->inode == 0) differs(path + "/" + name, "is listed with file id 0");
      compare(path + "/" + name, "listed type", entry->mode & S_IFMT, expected.st_mode & S_IFMT);
      compare(path + "/" + name, "listed mode", entry->mode & 07777U, expected.st_mode & 07777U);
      compareSize(path + "/" + name, "listed size", entry->size, expected);
      object(path + "/" + name, local + "/" + name, expected);
      if (S_ISDIR(expected.st_mode)) subdirectories.push_back(name);
    }
    for (const std::string& name : missing) differs(path + "/" + name, "is not listed");
    for (const std::string& name : subdirectories) {
      directory(path + "/" + name, local + "/" + name);
    }
  }

  const Counts& counts() const { return m_counts; }

 private:
  struct Destroy {
    void operator()(nfs_context* nfs) const { nfs_destroy_context(nfs); }
  };

  void object(const std::string& path, const std::string& local, const struct stat& expected) {
    nfs_stat_64 found{};
    if (nfs_lstat64(m_nfs.get(), path.c_str(), &found) != 0) return failed(path, "lstat");
    compare(path, "type", found.nfs_mode & S_IFMT, expected.st_mode & S_IFMT);
    compare(path, "mode", found.nfs_mode & 07777U, expected.st_mode & 07777U);
    compare(path, "owner", found.nfs_uid, expected.st_uid);
    compare(path, "group", found.nfs_gid, expected.st_gid);
    compare(path, "links", found.nfs_nlink, expected.st_nlink);
    compare(path, "mtime", found.nfs_mtime, static_cast<std::uint64_t>(expected.st_mtim.tv_sec));
    compareSize(path, "size", found.nfs_size, expected);
    if (S_ISLNK(expected.st_mode)) {
      symbolicLink(path, local);
    } else if (S_ISREG(expected.st_mode)) {
      file(path, local);
      tellProgress();
    } else if (!S_ISDIR(expected.st_mode)) {
      ++m_counts.others;
    }
  }

  void symbolicLink(const std::string& path, const std::string& local) {
    ++m_counts.links;
    std::array<char, 4097> target{};
    if (nfs_readlink(m_nfs.get(), path.c_str(), target.data(), target.size() - 1) != 0) {
      return failed(path, "readlink");
    }
    if (std::filesystem::read_symlink(local).string() != target.data()) {
      differs(path, std::string("points to ") + target.data());
    }
  }

  void file(const std::string& path, const std::string& local) {
    ++m_counts.files;
    nfsfh* opened = nullptr;
    if (nfs_open(m_nfs.get(), path.c_str(), 0, &opened) != 0) return failed(path, "open");
    const auto close = [this](nfsfh* handle) { nfs_close(m_nfs.get(), handle); };
    const std::unique_ptr<nfsfh, decltype(close)> handle(opened, close);

    std::ifstream original(local, std::ios::binary);
    std::uint64_t offset = 0;
    for (;;) {
      const int got =
          nfs_pread(m_nfs.get(), handle.get(), offset, m_remote.size(), m_remote.data());
      if (got < 0) return failed(path, "read");
      original.read(m_local.data(), got);
      if (original.gcount() != got ||
          std::memcmp(m_remote.data(), m_local.data(), static_cast<std::size_t>(got)) != 0) {
        return differs(path, "differs between byte " + std::to_string(offset) + " and byte " +
                                 std::to_string(offset + static_cast<std::uint64_t>(got)));
      }
      offset += static_cast<std::uint64_t>(got);
      m_counts.bytes += static_cast<unsigned long>(got);
      if (got == 0) break;
    }
    if (original.peek() != std::ifstream::traits_type::eof()) {
      differs(path, "ends early, at byte " + std::to_string(offset));
    }
  }

  // One line that is written over where a person watches, else a line for every tenth part.
  void tellProgress() {
    if (m_expectedFiles == 0) return;
    static const bool watched = isatty(STDOUT_FILENO) != 0;
    const unsigned long part = m_counts.files * (watched ? 200 : 10) / m_expectedFiles;
    if (part == m_toldPart) return;
    m_toldPart = part;
    std::printf("%s  compared %lu of %lu files, %.1f MB%s", watched ? "\r" : "", m_counts.files,
                m_expectedFiles, static_cast<double>(m_counts.bytes) / 1e6,
                watched && m_counts.files != m_expectedFiles ? "" : "\n");
    std::fflush(stdout);
  }

  void compareSize(const std::string& path, const char* what, std::uint64_t found,
                   const struct stat& expected) {
    // What a directory's size means is its file system's own affair.
    if (S_ISREG(expected.st_mode) || S_ISLNK(expected.st_mode)) {
      compare(path, what, found, static_cast<std::uint64_t>(expected.st_size));
    }
  }
  void compare(const std::string& path, const char* what, std::uint64_t found,
               std::uint64_t expected) {
    if (found == expected) return;
    differs(path, std::string(what) + " is " + std::to_string(found) + " instead of " +
                      std::to_string(expected));
  }
  void failed(const std::string& path, const char* call) {
    differs(path, std::string(call) + " failed: " + nfs_get_error(m_nfs.get()));
  }
  void differs(const std::string& path, const std::string& how) {
    if (++m_counts.differences <= kReportedDifferences) {
      std::printf("%s: %s\n", path.c_str(), how.c_str());
    }
  }

  std::unique_ptr<nfs_context, Destroy> m_nfs;
  const bool m_listsIds;  // of version 4 the library has none in listings
  unsigned long m_expectedFiles;
  unsigned long m_toldPart = 0;
  std::vector<char> m_remote = std::vector<char>(kTransfer);
  std::vector<char> m_local = std::vector<char>(kTransfer);
  Counts m_counts;
};

unsigned long countFiles(const char* directory) {
  unsigned long files = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file() && !entry.is_symlink()) ++files;
  }
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  const bool progress = argc == 4 && std::strcmp(argv[1], "--progress") == 0;
  if (argc != 3 && !progress) {
    std::fputs("usage: libnfs_compare [--progress] URL DIRECTORY\n", stderr);
    return 2;
  }
  const char* url = argv[argc - 2];
  const char* local = argv[argc - 1];
  try {
    Comparison comparison(url, progress ? countFiles(local) : 0);
    comparison.directory("", local);
    const Counts& counts = comparison.counts();
    std::printf(
        "compared %lu directories, %lu files, %lu symbolic links, %lu others, %lu bytes: "
        "%d differences\n",
        counts.directories, counts.files, counts.links, counts.others, counts.bytes,
        counts.differences);
    return counts.differences == 0 ? 0 : 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "libnfs_compare: %s\n", e.what());
    return 1;
  }
}
