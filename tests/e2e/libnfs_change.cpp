// Makes every change that NFS knows, through a client library that is not ours, and prints what
// ends otherwise than the system call of its name would; status 0 when nothing does.
//
//   libnfs_change URL              two clients take turns, each with what the other has made
//   libnfs_change --refused URL    an export that takes no changes has to refuse each
//
// The export has the files /file and /doomed, /link, which is symbolic, /directory with the file
// inner, and /empty.

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <nfsc/libnfs.h>
#include <sys/stat.h>
#include <sys/time.h>

namespace {

using Path = const std::string&;
using Offset = std::uint64_t;

constexpr Offset kFar = (Offset{4} << 30U) - 1'000'000;  // what is written there passes 4 GiB
constexpr int kAnyError = -10'000;  // the library does not tell which, or systems differ

// Bytes that differ from place to place.
std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  return bytes;
}

// Each change returns what the system call of its name would, or the negative error. Open files
// have numbers, which the caller chooses.
class Client {
 public:
  explicit Client(const char* url) : m_nfs(nfs_init_context()) {
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
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() {
    for (const auto& [file, handle] : m_files) nfs_close(m_nfs.get(), handle);
  }

  int create(int file, Path path, int mode) {
    nfsfh* handle = nullptr;
    return keep(file, handle,
                nfs_create(m_nfs.get(), path.c_str(), O_RDWR | O_EXCL, mode, &handle));
  }
  int open(int file, Path path, int flags = O_RDWR) {
    nfsfh* handle = nullptr;
    return keep(file, handle, nfs_open(m_nfs.get(), path.c_str(), flags, &handle));
  }
  // 0 for a write of everything.
  int write(int file, Offset offset, const std::string& bytes) {
    const int done = nfs_pwrite(m_nfs.get(), m_files.at(file), offset, bytes.size(), bytes.data());
    return done == static_cast<int>(bytes.size()) ? 0 : done;
  }
  // 0 when these bytes are in the file.
  int holds(int file, Offset offset, const std::string& expected) {
    std::string bytes(expected.size(), '!');
    const int got = nfs_pread(m_nfs.get(), m_files.at(file), offset, bytes.size(), bytes.data());
    return got < 0 ? got : bytes == expected ? 0 : -EBADMSG;
  }
  int truncateOpen(int file, Offset size) {
    return nfs_ftruncate(m_nfs.get(), m_files.at(file), size);
  }
  int truncate(Path path, Offset size) { return nfs_truncate(m_nfs.get(), path.c_str(), size); }
  int makeDirectory(Path path, int mode) { return nfs_mkdir2(m_nfs.get(), path.c_str(), mode); }
  int removeDirectory(Path path) { return nfs_rmdir(m_nfs.get(), path.c_str()); }
  int remove(Path path) { return nfs_unlink(m_nfs.get(), path.c_str()); }
  int rename(Path from, Path to) { return nfs_rename(m_nfs.get(), from.c_str(), to.c_str()); }
  int link(Path from, Path to) { return nfs_link(m_nfs.get(), from.c_str(), to.c_str()); }
  int symlink(Path target, Path path) {
    return nfs_symlink(m_nfs.get(), target.c_str(), path.c_str());
  }
  int chmod(Path path, int mode) { return nfs_chmod(m_nfs.get(), path.c_str(), mode); }
  int chown(Path path, int uid, int gid) { return nfs_chown(m_nfs.get(), path.c_str(), uid, gid); }
  int setTimes(Path path, long atime, long mtime) {
    std::array<timeval, 2> times{timeval{atime, 0}, timeval{mtime, 0}};
    return nfs_utimes(m_nfs.get(), path.c_str(), times.data());
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

// In the user namespace of an ordinary user files cannot be given to anybody.
int idOf(int somebody) {
  static const bool isAlone = [] {
    std::ifstream map("/proc/self/uid_map");
    unsigned inside = 0, outside = 0, count = 0;
    return map >> inside >> outside >> count && count == 1;
  }();
  return isAlone ? 0 : somebody;
}

struct Change {
  const char* what;
  std::function<int(Client&)> run;
  int expected = 0;
};

// One of each kind, with /file open as 0.
const Change kOfEachKind[] = {
    {"write", [](Client& on) { return on.write(0, 0, "changed"); }},
    {"append", [](Client& on) { return on.write(0, 1'000'000, "changed"); }},
    {"truncate", [](Client& on) { return on.truncateOpen(0, 1); }},
    {"chmod", [](Client& on) { return on.chmod("/directory/inner", 0640); }},
    {"chown", [](Client& on) { return on.chown("/directory", idOf(1), idOf(2)); }},
    {"times", [](Client& on) { return on.setTimes("/directory/inner", 86'400, 1'000'000'000); }},
    {"create", [](Client& on) { return on.create(1, "/name", 0604); }},
    {"create in a directory", [](Client& on) { return on.create(2, "/directory/large", 0644); }},
    {"mkdir", [](Client& on) { return on.makeDirectory("/made", 01711); }},
    {"symlink", [](Client& on) { return on.symlink("file", "/soft"); }},
    {"link", [](Client& on) { return on.link("/doomed", "/linked"); }},
    {"remove", [](Client& on) { return on.remove("/doomed"); }},
    {"rename over", [](Client& on) { return on.rename("/directory/inner", "/file"); }},
    {"rename", [](Client& on) { return on.rename("/file", "/moved"); }},
    {"rename a directory", [](Client& on) { return on.rename("/directory", "/renamed"); }},
    {"remove a link", [](Client& on) { return on.remove("/link"); }},
    {"rmdir", [](Client& on) { return on.removeDirectory("/empty"); }},
};

const std::string kLarge = pattern(3'000'000);

// What follows where those were taken, by the second client and the first in turn.
const Change kThen[] = {
    {"open what moved", [](Client& on) { return on.open(2, "/renamed/large"); }},
    {"write past 4 GiB", [](Client& on) { return on.write(2, kFar, kLarge); }},
    {"what the other wrote", [](Client& on) { return on.holds(2, kFar, kLarge); }},
    {"create over a file", [](Client& on) { return on.create(9, "/name", 0600); }, -EEXIST},
    {"rename above", [](Client& on) { return on.rename("/renamed", "/made/again"); }},
    {"write after that", [](Client& on) { return on.write(2, kFar, "after"); }},
    {"read after that", [](Client& on) { return on.holds(2, kFar, "after" + kLarge.substr(5)); }},
    {"write to a replaced file", [](Client& on) { return on.write(0, 0, "ghost"); }, kAnyError},
    {"cut", [](Client& on) { return on.truncateOpen(2, kFar + 3); }},
    {"lengthen", [](Client& on) { return on.truncateOpen(2, kFar + 100); }},
    {"zeros follow", [](Client& on) { return on.holds(2, kFar, "aft" + std::string(97, '\0')); }},
    {"read a replaced file", [](Client& on) { return on.holds(0, 0, "c"); }, kAnyError},
    {"mkdir over a file", [](Client& on) { return on.makeDirectory("/name", 0700); }, -EEXIST},
    {"mkdir twice", [](Client& on) { return on.makeDirectory("/made", 0700); }, -EEXIST},
    {"symlink twice", [](Client& on) { return on.symlink("x", "/soft"); }, -EEXIST},
    {"link twice", [](Client& on) { return on.link("/name", "/soft"); }, kAnyError},
    {"link of a directory", [](Client& on) { return on.link("/made", "/x"); }, kAnyError},
    {"rmdir with entries", [](Client& on) { return on.removeDirectory("/made"); }, -ENOTEMPTY},
    {"rmdir of nothing", [](Client& on) { return on.removeDirectory("/x"); }, -ENOENT},
    {"remove nothing", [](Client& on) { return on.remove("/x"); }, -ENOENT},
    {"remove a directory", [](Client& on) { return on.remove("/made"); }, kAnyError},
    {"rename nothing", [](Client& on) { return on.rename("/x", "/y"); }, -ENOENT},
    {"into itself", [](Client& on) { return on.rename("/made", "/made/again/x"); }, kAnyError},
    {"over entries", [](Client& on) { return on.rename("/made/again", "/made"); }, kAnyError},
    {"directory over file", [](Client& on) { return on.rename("/made", "/name"); }, kAnyError},
    {"file over directory", [](Client& on) { return on.rename("/name", "/made"); }, kAnyError},
    {"open nothing", [](Client& on) { return on.open(9, "/x"); }, kAnyError},
    {"truncate nothing", [](Client& on) { return on.truncate("/x", 1); }, kAnyError},
    {"a name too long",
     [](Client& on) { return on.makeDirectory("/" + std::string(256, 'n'), 0700); }, kAnyError},
    {"a name that is just short enough",
     [](Client& on) { return on.makeDirectory("/" + std::string(255, 'n'), 0700); }},
    {"a directory over an empty one",
     [](Client& on) { return on.rename("/made/again", "/" + std::string(255, 'n')); }},
    {"onto the same file", [](Client& on) { return on.rename("/moved", "/moved"); }},
    {"open a file", [](Client& on) { return on.open(3, "/linked"); }},
    {"remove it", [](Client& on) { return on.remove("/linked"); }},
    {"a successor", [](Client& on) { return on.create(4, "/linked", 0644); }},
    {"open the successor", [](Client& on) { return on.open(4, "/linked"); }},
    {"write to a removed file", [](Client& on) { return on.write(3, 0, "ghost"); }, kAnyError},
};

// Prints every change and its end; the number of those that ended otherwise than expected.
class Trial {
 public:
  void make(Client& on, const Change& change, int expected) {
    const int result = change.run(on);
    const bool isAsExpected = expected == kAnyError ? result < 0 : result == expected;
    m_differences += isAsExpected ? 0 : 1;
    std::printf("%s: %d %s%s\n", change.what, result, result < 0 ? on.error().c_str() : "",
                isAsExpected ? "" : ", which differs");
  }
  int differences() const { return m_differences; }

 private:
  int m_differences = 0;
};

int run(const char* url, bool isRefused) {
  std::array<Client, 2> clients{Client(url), Client(url)};
  // For reading where the client itself would decline the rest, since ACCESS does not grant it.
  if (clients[0].open(0, "/file", isRefused ? O_RDONLY : O_RDWR) != 0) {
    throw std::runtime_error(clients[0].error());
  }
  Trial trial;
  for (const Change& change : kOfEachKind) {
    trial.make(clients[0], change, isRefused ? kAnyError : change.expected);
  }
  std::size_t turn = 0;
  if (!isRefused) {
    for (const Change& change : kThen) trial.make(clients[++turn % 2], change, change.expected);
  }
  std::printf("%d differences\n", trial.differences());
  return trial.differences() == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const bool isRefused = argc == 3 && std::string(argv[1]) == "--refused";
  if (argc != 2 && !isRefused) {
    std::fputs("usage: libnfs_change [--refused] URL\n", stderr);
    return 2;
  }
  try {
    return run(argv[argc - 1], isRefused);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "libnfs_change: %s\n", e.what());
    return 1;
  }
}
