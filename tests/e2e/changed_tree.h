#pragma once

// A local directory and an export that know the same changes and tell in the same words what they
// look like. Each operation returns what the system call of its name would, or the negative error.
// Paths begin with a slash; open files have numbers, which the caller chooses.

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <nfsc/libnfs.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace nfslib::e2e {

using Path = const std::string&;
using Offset = std::uint64_t;

inline constexpr Offset kMiB = 1 << 20;
inline constexpr Offset kGiB = 1 << 30;
// What a file has that nobody gave a time is now; a time that was set lies before this.
inline constexpr std::uint64_t kSetTimesEnd = 1'500'000'000;

// Bytes that differ from place to place and from one seed to the next.
inline std::string pattern(std::size_t size, std::uint64_t seed) {
  std::string bytes(size, '\0');
  std::uint64_t state = seed * 0x9E37'79B9'7F4A'7C15 + 1;
  for (char& c : bytes) {
    state = state * 6'364'136'223'846'793'005 + 1'442'695'040'888'963'407;
    c = static_cast<char>(state >> 56U);
  }
  return bytes;
}

// What an object looks like, in words that both sides share.
inline std::string description(std::uint64_t mode, std::uint64_t links, std::uint64_t size,
                               std::uint64_t uid, std::uint64_t gid, std::uint64_t mtime) {
  std::array<char, 160> text{};
  const bool isDirectory = S_ISDIR(mode);  // its links and size are its file system's affair
  const auto number = [](std::uint64_t n) { return static_cast<unsigned long long>(n); };
  std::snprintf(text.data(), text.size(), "mode %06llo links %llu size %llu owner %llu:%llu %llu",
                number(mode), isDirectory ? 0 : number(links), isDirectory ? 0 : number(size),
                number(uid), number(gid), mtime < kSetTimesEnd ? number(mtime) : 0);
  return text.data();
}

class Local {
 public:
  explicit Local(std::string root) : m_root(std::move(root)) {}
  Local(const Local&) = delete;
  Local& operator=(const Local&) = delete;
  ~Local() {
    for (const auto& [file, fd] : m_files) ::close(fd);
  }

  int create(int file, Path path, unsigned mode) {
    return keep(file, ::open(at(path).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  }
  int open(int file, Path path) {
    return keep(file, ::open(at(path).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  }
  int close(int file) {
    const int fd = m_files.at(file);
    m_files.erase(file);
    return result(::close(fd));
  }
  int write(int file, Offset offset, const std::string& bytes) {
    return result(
        ::pwrite(m_files.at(file), bytes.data(), bytes.size(), static_cast<off_t>(offset)));
  }
  std::string read(int file, Offset offset, std::size_t size) {
    std::string bytes(size, '?');
    const auto got = ::pread(m_files.at(file), bytes.data(), size, static_cast<off_t>(offset));
    return got < 0 ? "no bytes" : bytes.substr(0, static_cast<std::size_t>(got));
  }
  int truncateOpen(int file, Offset size) {
    // By name: on an open file it would move the times even where the size stays.
    const std::string name = "/proc/self/fd/" + std::to_string(m_files.at(file));
    return result(::truncate(name.c_str(), static_cast<off_t>(size)));
  }
  int truncate(Path path, Offset size) {
    return result(::truncate(at(path).c_str(), static_cast<off_t>(size)));
  }
  int makeDirectory(Path path, unsigned mode) { return result(::mkdir(at(path).c_str(), mode)); }
  int removeDirectory(Path path) { return result(::rmdir(at(path).c_str())); }
  int remove(Path path) { return result(::unlink(at(path).c_str())); }
  int rename(Path from, Path to) { return result(::rename(at(from).c_str(), at(to).c_str())); }
  int link(Path from, Path to) { return result(::link(at(from).c_str(), at(to).c_str())); }
  int symlink(Path target, Path path) {
    return result(::symlink(target.c_str(), at(path).c_str()));
  }
  int chmod(Path path, unsigned mode) { return result(::chmod(at(path).c_str(), mode)); }
  int chown(Path path, unsigned uid, unsigned gid) {
    return result(::chown(at(path).c_str(), uid, gid));
  }
  int setTimes(Path path, long atime, long mtime) {
    const std::array<timeval, 2> times{timeval{atime, 0}, timeval{mtime, 0}};
    return result(::utimes(at(path).c_str(), times.data()));
  }

  std::string look(Path path) const {
    struct stat status {};
    if (::lstat(at(path).c_str(), &status) != 0) return "nothing";
    return description(status.st_mode, status.st_nlink, static_cast<std::uint64_t>(status.st_size),
                       status.st_uid, status.st_gid,
                       static_cast<std::uint64_t>(status.st_mtim.tv_sec));
  }
  std::string accessTime(Path path) const {
    struct stat status {};
    return ::lstat(at(path).c_str(), &status) != 0 ? "none" : std::to_string(status.st_atim.tv_sec);
  }
  std::string target(Path path) const { return std::filesystem::read_symlink(at(path)).string(); }
  std::set<std::string> list(Path path) const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(at(path))) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  // What only this side is asked.
  bool isOpen(int file) const { return m_files.contains(file); }
  bool isRemoved(int file) const {
    struct stat status {};
    return ::fstat(m_files.at(file), &status) == 0 && status.st_nlink == 0;
  }
  unsigned typeOf(Path path) const {
    struct stat status {};
    return ::lstat(at(path).c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
  }
  // Calls `visit(begin, end)` for the parts of an open file that hold data.
  void eachPart(int file, const std::function<void(Offset, Offset)>& visit) const {
    off_t end = 0;
    for (;;) {
      const off_t begin = ::lseek(m_files.at(file), end, SEEK_DATA);
      if (begin < 0) return;
      end = ::lseek(m_files.at(file), begin, SEEK_HOLE);
      visit(static_cast<Offset>(begin), static_cast<Offset>(end));
    }
  }

 private:
  static int result(ssize_t value) { return value < 0 ? -errno : static_cast<int>(value); }
  std::string at(Path path) const { return m_root + path; }
  int keep(int file, int fd) {
    if (fd < 0) return -errno;
    m_files[file] = fd;
    return 0;
  }

  std::string m_root;
  std::map<int, int> m_files;
};

class Remote {
 public:
  explicit Remote(const char* url) : m_nfs(nfs_init_context()) {
    if (!m_nfs) throw std::runtime_error("no libnfs context");
    const std::unique_ptr<nfs_url, decltype(&nfs_destroy_url)> parsed(
        nfs_parse_url_dir(m_nfs.get(), url), &nfs_destroy_url);
    if (!parsed) throw std::runtime_error(error());
    nfs_set_dircache(m_nfs.get(), 0);
    nfs_set_autoreconnect(m_nfs.get(), 0);  // a connection that breaks is a fault
    nfs_set_timeout(m_nfs.get(), 20'000);
    nfs_umask(m_nfs.get(), 0);
    if (nfs_mount(m_nfs.get(), parsed->server, parsed->path) != 0) {
      throw std::runtime_error(error());
    }
  }
  Remote(const Remote&) = delete;
  Remote& operator=(const Remote&) = delete;
  ~Remote() {
    for (const auto& [file, handle] : m_files) nfs_close(m_nfs.get(), handle);
  }

  int create(int file, Path path, unsigned mode) {
    nfsfh* handle = nullptr;
    return keep(
        file, handle,
        nfs_create(m_nfs.get(), path.c_str(), O_RDWR | O_EXCL, static_cast<int>(mode), &handle));
  }
  int open(int file, Path path, int flags = O_RDWR) {
    nfsfh* handle = nullptr;
    return keep(file, handle, nfs_open(m_nfs.get(), path.c_str(), flags, &handle));
  }
  int close(int file) {
    nfsfh* const handle = m_files.at(file);
    m_files.erase(file);
    return nfs_close(m_nfs.get(), handle);
  }
  int write(int file, Offset offset, const std::string& bytes) {
    return nfs_pwrite(m_nfs.get(), m_files.at(file), offset, bytes.size(), bytes.data());
  }
  std::string read(int file, Offset offset, std::size_t size) {
    std::string bytes(size, '!');
    const int got = nfs_pread(m_nfs.get(), m_files.at(file), offset, size, bytes.data());
    return got < 0 ? "failed: " + error() : bytes.substr(0, static_cast<std::size_t>(got));
  }
  int truncateOpen(int file, Offset size) {
    return nfs_ftruncate(m_nfs.get(), m_files.at(file), size);
  }
  int truncate(Path path, Offset size) { return nfs_truncate(m_nfs.get(), path.c_str(), size); }
  int makeDirectory(Path path, unsigned mode) {
    return nfs_mkdir2(m_nfs.get(), path.c_str(), static_cast<int>(mode));
  }
  int removeDirectory(Path path) { return nfs_rmdir(m_nfs.get(), path.c_str()); }
  int remove(Path path) { return nfs_unlink(m_nfs.get(), path.c_str()); }
  int rename(Path from, Path to) { return nfs_rename(m_nfs.get(), from.c_str(), to.c_str()); }
  int link(Path from, Path to) { return nfs_link(m_nfs.get(), from.c_str(), to.c_str()); }
  int symlink(Path target, Path path) {
    return nfs_symlink(m_nfs.get(), target.c_str(), path.c_str());
  }
  int chmod(Path path, unsigned mode) {
    return nfs_chmod(m_nfs.get(), path.c_str(), static_cast<int>(mode));
  }
  int chown(Path path, unsigned uid, unsigned gid) {
    return nfs_chown(m_nfs.get(), path.c_str(), static_cast<int>(uid), static_cast<int>(gid));
  }
  int setTimes(Path path, long atime, long mtime) {
    std::array<timeval, 2> times{timeval{atime, 0}, timeval{mtime, 0}};
    return nfs_utimes(m_nfs.get(), path.c_str(), times.data());
  }

  std::string look(Path path) {
    nfs_stat_64 status{};
    const int failure = nfs_lstat64(m_nfs.get(), path.c_str(), &status);
    if (failure == -ENOENT || failure == -ENOTDIR) return "nothing";
    if (failure != 0) return "failed: " + error();
    return description(status.nfs_mode, status.nfs_nlink, status.nfs_size, status.nfs_uid,
                       status.nfs_gid, status.nfs_mtime);
  }
  std::string accessTime(Path path) {
    nfs_stat_64 status{};
    return nfs_lstat64(m_nfs.get(), path.c_str(), &status) != 0 ? "failed: " + error()
                                                                : std::to_string(status.nfs_atime);
  }
  std::string target(Path path) {
    std::array<char, PATH_MAX> text{};
    return nfs_readlink(m_nfs.get(), path.c_str(), text.data(), text.size() - 1) != 0
               ? "failed: " + error()
               : text.data();
  }
  std::set<std::string> list(Path path) {
    nfsdir* dir = nullptr;
    if (nfs_opendir(m_nfs.get(), path.c_str(), &dir) != 0) return {"failed: " + error()};
    std::set<std::string> names;
    while (const nfsdirent* entry = nfs_readdir(m_nfs.get(), dir)) {
      const std::string name = entry->name;
      if (name != "." && name != ".." && !names.insert(name).second) names.insert(name + " twice");
    }
    nfs_closedir(m_nfs.get(), dir);
    return names;
  }
  std::string error() {
    const char* const text = nfs_get_error(m_nfs.get());  // null before the first failure
    return text ? text : "";
  }

 private:
  struct Destroy {
    void operator()(nfs_context* nfs) const { nfs_destroy_context(nfs); }
  };

  int keep(int file, nfsfh*& handle, int status) {
    if (status == 0) m_files[file] = handle;
    return status;
  }

  std::unique_ptr<nfs_context, Destroy> m_nfs;
  std::map<int, nfsfh*> m_files;
};

}  // namespace nfslib::e2e
