// Changes an export and a local directory alike, through a client library that is not ours, and
// tells where the two part.
//
//   libnfs_change URL DIRECTORY [SEED [CHANGES]]
//   libnfs_change --fill URL       fills a small export until nothing fits, and empties it again
//   libnfs_change --refused URL    tries every change on an export that takes none
//
// The first form starts from two empty trees. Two clients with connections of their own take turns.
// After every change both look at all names that the script uses, the one that did not make it
// first: what it sees has to be what the local directory shows. Sizes go beyond 4 GiB. Prints what
// differs; status 0 when nothing does.

#include "changed_tree.h"

#include <algorithm>
#include <array>
#include <functional>
#include <random>
#include <utility>
#include <vector>

namespace nfslib::e2e {

namespace {

constexpr int kReportedDifferences = 20;

class Differences {
 public:
  void add(const std::string& what) {
    if (++m_count <= kReportedDifferences) std::printf("%s\n", what.c_str());
  }
  int count() const { return m_count; }

 private:
  int m_count = 0;
};

std::string shortened(const std::string& text) {
  return text.size() < 100 ? text : std::to_string(text.size()) + " bytes";
}
std::string joined(const std::set<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += name + '\n';
  return text;
}

class Script {
 public:
  Script(const char* url, const char* directory, std::uint64_t seed)
      : m_local(directory),
        m_clients{std::make_unique<Remote>(url), std::make_unique<Remote>(url)},
        m_random(seed) {}

  int differences() const { return m_differences.count(); }

  // Files that are moved, linked, replaced and removed while both clients have them open. Even
  // files are the first client's, odd ones the second's.
  void handles() {
    const std::string large = pattern(3 * kMiB + 1, 1);
    by(0, "mkdir /x", [](auto& on) { return on.makeDirectory("/x", 0750); });
    by(0, "create /x/a", [](auto& on) { return on.create(0, "/x/a", 0640); });
    by(0, "write", [](auto& on) { return on.write(0, 0, "the beginning"); });
    by(1, "open /x/a", [](auto& on) { return on.open(1, "/x/a"); });
    by(1, "write past 4 GiB", [&](auto& on) { return on.write(1, 4 * kGiB - kMiB, large); });
    read(0, 4 * kGiB - kMiB - 5, large.size() + 10);
    by(1, "rename /x to /y", [](auto& on) { return on.rename("/x", "/y"); });
    by(0, "write after a move above", [](auto& on) { return on.write(0, 4, "end"); });
    read(1, 0, 100);
    by(0, "rename /y/a to /b", [](auto& on) { return on.rename("/y/a", "/b"); });
    by(1, "write after a move", [](auto& on) { return on.write(1, 5 * kGiB, "far"); });
    read(0, 5 * kGiB - 1, 100);
    by(0, "link /b to /y/b", [](auto& on) { return on.link("/b", "/y/b"); });
    by(1, "rename onto the same file", [](auto& on) { return on.rename("/b", "/y/b"); });
    by(1, "remove /b", [](auto& on) { return on.remove("/b"); });
    by(0, "write by the other name", [](auto& on) { return on.write(0, 1, "H"); });
    by(1, "chmod /y/b", [](auto& on) { return on.chmod("/y/b", 0604); });
    read(1, 0, 100);
    // Down and up again: what was cut off must not come back.
    for (const Offset size : {6 * kGiB, 4 * kGiB + 1, Offset{3}, Offset{70'000}, Offset{70'000}}) {
      by(0, "truncate", [&](auto& on) { return on.truncateOpen(0, size); });
      read(1, size < 4096 ? 0 : size - 4096, 8192);
    }
    read(0, 0, 70'000);

    by(1, "create /a", [](auto& on) { return on.create(3, "/a", 0600); });
    by(1, "write", [](auto& on) { return on.write(3, 0, "another file"); });
    by(0, "rename /a over /y/b", [](auto& on) { return on.rename("/a", "/y/b"); });
    gone(0);
    gone(1);
    read(3, 0, 100);
    by(0, "remove /y/b", [](auto& on) { return on.remove("/y/b"); });
    by(0, "a successor", [](auto& on) { return on.create(0, "/y/b", 0644); });
    by(0, "write", [](auto& on) { return on.write(0, 0, "the successor"); });
    gone(3);
    by(0, "close", [](auto& on) { return on.close(0); });
  }

  // From here on /y/b is a file in /y and there is nothing else.
  void errors() {
    by(0, "mkdir /x", [](auto& on) { return on.makeDirectory("/x", 0777); });
    by(0, "mkdir /x/s", [](auto& on) { return on.makeDirectory("/x/s", 0711); });
    by(1, "symlink /l", [](auto& on) { return on.symlink("y/b", "/l"); });
    by(1, "link /y/b to /a", [](auto& on) { return on.link("/y/b", "/a"); });
    fails(EEXIST, "create a name that is taken", [](auto& on) { return on.create(9, "/a", 0600); });
    fails(EEXIST, "create a directory's name", [](auto& on) { return on.create(9, "/x", 0600); });
    fails(EEXIST, "mkdir twice", [](auto& on) { return on.makeDirectory("/x", 0700); });
    fails(EEXIST, "mkdir of a file", [](auto& on) { return on.makeDirectory("/a", 0700); });
    fails(EEXIST, "symlink twice", [](auto& on) { return on.symlink("x", "/l"); });
    fails(0, "link onto a name", [](auto& on) { return on.link("/a", "/y/b"); });
    fails(0, "link of a directory", [](auto& on) { return on.link("/x", "/y/s"); });
    fails(ENOTEMPTY, "rmdir with entries", [](auto& on) { return on.removeDirectory("/x"); });
    fails(ENOENT, "rmdir of nothing", [](auto& on) { return on.removeDirectory("/x/a"); });
    fails(ENOENT, "remove nothing", [](auto& on) { return on.remove("/x/a"); });
    fails(0, "remove a directory with entries", [](auto& on) { return on.remove("/x"); });
    fails(ENOENT, "rename nothing", [](auto& on) { return on.rename("/x/a", "/x/b"); });
    fails(0, "into itself", [](auto& on) { return on.rename("/x", "/x/s/a"); });
    fails(0, "over its parent", [](auto& on) { return on.rename("/x/s", "/x"); });
    fails(0, "over entries", [](auto& on) { return on.rename("/x/s", "/y"); });
    fails(0, "directory over file", [](auto& on) { return on.rename("/x", "/a"); });
    fails(0, "file over directory", [](auto& on) { return on.rename("/a", "/x/s"); });
    fails(0, "open nothing", [](auto& on) { return on.open(9, "/x/a"); });
    fails(0, "truncate nothing", [](auto& on) { return on.truncate("/x/a", 1); });
    fails(0, "a name too long",
          [](auto& on) { return on.makeDirectory("/" + std::string(256, 'n'), 0700); });
    by(0, "mkdir /y/s", [](auto& on) { return on.makeDirectory("/y/s", 0700); });
    by(0, "over an empty directory", [](auto& on) { return on.rename("/x/s", "/y/s"); });
    everything();
  }

  void randomly(int changes) {
    for (int i = 0; i < changes; ++i) {
      step();
      if (i % 50 == 49) everything();
    }
    for (int file = 0; file < kFiles; ++file) {
      if (m_local.isOpen(file)) close(file);
    }
  }

  // What the trees are left with: something of everything.
  void keepsakes() {
    by(0, "mkdir /kept", [](auto& on) { return on.makeDirectory("/kept", 0751); });
    by(0, "create", [](auto& on) { return on.create(0, "/kept/sparse", 0644); });
    for (int i = 0; i < 20; ++i) {
      const Offset offset = below(64 * kMiB) + (i % 2 == 0 ? 4 * kGiB : 0);
      const std::string bytes = pattern(1 + below(20'000), offset);
      by(0, "write", [&](auto& on) { return on.write(0, offset, bytes); });
    }
    by(0, "close", [](auto& on) { return on.close(0); });
    by(1, "link", [](auto& on) { return on.link("/kept/sparse", "/kept/linked"); });
    by(0, "symlink", [](auto& on) { return on.symlink("sparse", "/kept/symbolic"); });
    by(0, "symlink", [](auto& on) { return on.symlink(std::string(1000, 't'), "/kept/dangling"); });
    by(1, "mkdir", [](auto& on) { return on.makeDirectory("/kept/sticky", 0700); });
    by(1, "chmod", [](auto& on) { return on.chmod("/kept/sticky", 01777); });
    for (const unsigned mode : {04711U, 02755U, 0444U, 0U}) {
      const std::string path = "/kept/mode " + std::to_string(mode);
      by(1, "create", [&](auto& on) { return on.create(1, path, 0600); });
      by(1, "close", [](auto& on) { return on.close(1); });
      by(0, "chown", [&](auto& on) { return on.chown(path, 1, 2); });
      by(0, "chmod", [&](auto& on) { return on.chmod(path, mode); });
    }
    everything();  // before the times are set, since it reads
    const std::map<std::string, long> times{
        {"/kept/linked", 86'400}, {"/kept/mode 0", 1'000'000'000}, {"/kept/sticky", 1}};
    for (const auto& [name, atime] : times) {
      by(1, "set times",
         [&path = name, time = atime](auto& on) { return on.setTimes(path, time, time + 11); });
      expectEqual("access time of " + name, m_local.accessTime(name), client(0).accessTime(name));
      expectEqual(name, m_local.look(name), client(0).look(name));
    }
  }

 private:
  static constexpr int kFiles = 6;
  static constexpr std::array kNames{"/a",     "/b", "/x",   "/x/a", "/x/b", "/x/s",
                                     "/x/s/a", "/y", "/y/a", "/y/b", "/y/s", "/y/s/a"};
  // Names that only symbolic links have, so that no other path leads through one.
  static constexpr std::array kLinkNames{"/l", "/m", "/x/l"};

  template <class Operation>
  void by(int number, const std::string& what, Operation operation) {
    begin(number, what);
    const int expected = operation(m_local);
    const int found = operation(client(number));
    if (expected < 0 ? found >= 0 : found != expected) {
      differs("the result is " + std::to_string(found) + ", locally " + std::to_string(expected) +
              " (" + client(number).error() + ")");
    }
    observe(number);
  }

  // `error` is what the client is told, 0 for any failure.
  template <class Operation>
  void fails(int error, const std::string& what, Operation operation) {
    const int number = ++m_failures % 2;
    begin(number, what);
    if (operation(m_local) >= 0) differs("the local directory takes it");
    const int found = operation(client(number));
    if (found >= 0) differs("it succeeds");
    if (error != 0 && found != -error) {
      differs("the error is " + std::to_string(-found) + " instead of " + std::to_string(error));
    }
    observe(number);
  }

  // The handle of a removed file leads nowhere, whatever has its name by now.
  void gone(int file) {
    Remote& owner = client(file);
    begin(file % 2, "use a removed file");
    if (!m_local.isRemoved(file)) throw std::logic_error("the file is still there");
    if (!owner.read(file, 0, 100).starts_with("failed: ")) differs("it can be read");
    if (owner.write(file, 0, "ghost") >= 0) differs("it can be written");
    if (owner.truncateOpen(file, 0) >= 0) differs("it can be cut");
    m_local.close(file);
    owner.close(file);
    observe(file % 2);
  }

  void read(int file, Offset offset, std::size_t size) {
    begin(file % 2, "read at " + std::to_string(offset));
    const std::string expected = m_local.read(file, offset, size);
    const std::string found = client(file).read(file, offset, size);
    if (expected == found) return;
    const auto [at, other] =
        std::mismatch(expected.begin(), expected.end(), found.begin(), found.end());
    differs(std::to_string(found.size()) + " bytes instead of " + std::to_string(expected.size()) +
            ", other ones from " + std::to_string(at - expected.begin()) + " on; " +
            (found.starts_with("failed: ") ? found : ""));
  }
  void close(int file) {
    if (m_local.isRemoved(file)) return gone(file);
    by(file % 2, "close", [&](auto& on) { return on.close(file); });
  }

  void step() {
    const int file = static_cast<int>(below(kFiles));
    const int owner = file % 2, any = static_cast<int>(below(2));
    const std::string path = kNames[below(kNames.size())], other = kNames[below(kNames.size())];
    const std::string link = kLinkNames[below(kLinkNames.size())];
    const unsigned mode = std::array{0600U, 0644U, 0755U, 0U}[below(4)];
    const Offset offset = below(3) == 0 ? 4 * kGiB + below(kGiB) : below(100'000);
    const bool isDirectory = m_local.typeOf(path) == S_IFDIR;
    const std::string text = path + " " + other;
    switch (below(14)) {
      case 0:
        return by(any, "mkdir " + path, [&](auto& on) { return on.makeDirectory(path, mode); });
      case 1:
      case 2:
        if (m_local.isOpen(file)) return close(file);
        return by(owner, "create " + path, [&](auto& on) { return on.create(file, path, mode); });
      case 3:
        if (m_local.isOpen(file)) return close(file);
        if (isDirectory) return;  // libnfs would open it
        return by(owner, "open " + path, [&](auto& on) { return on.open(file, path); });
      case 4:
      case 5:
      case 6: {
        if (!m_local.isOpen(file)) return;
        if (m_local.isRemoved(file)) return gone(file);
        const std::string bytes = pattern(1 + below(8000), m_random());
        by(owner, "write", [&](auto& on) { return on.write(file, offset, bytes); });
        return read(file, offset < 9000 ? 0 : offset - 9000, 30'000);
      }
      case 7:
        if (!m_local.isOpen(file) || m_local.isRemoved(file)) return;
        by(owner, "truncate", [&](auto& on) { return on.truncateOpen(file, offset); });
        return read(file, offset < 9000 ? 0 : offset - 9000, 30'000);
      case 8:
      case 9:
        return by(any, "rename " + text, [&](auto& on) { return on.rename(path, other); });
      case 10:
        if (isDirectory) {
          return by(any, "rmdir " + path, [&](auto& on) { return on.removeDirectory(path); });
        }
        return by(any, "remove " + path, [&](auto& on) { return on.remove(path); });
      case 11:
        return by(any, "link " + text, [&](auto& on) { return on.link(path, other); });
      case 12:
        by(any, "chmod " + path, [&](auto& on) { return on.chmod(path, mode); });
        if (isDirectory) return;  // what happens in it moves its time
        return by(any, "set times " + path, [&](auto& on) {
          return on.setTimes(path, 1'000, 1'000'000 + static_cast<long>(offset % 1000));
        });
      default:
        if (below(2) == 0) {
          const std::string to = kLinkNames[below(kLinkNames.size())];
          return by(any, "rename " + link, [&](auto& on) { return on.rename(link, to); });
        }
        if (m_local.typeOf(link) != 0) {
          return by(any, "remove " + link, [&](auto& on) { return on.remove(link); });
        }
        return by(any, "symlink " + link, [&](auto& on) { return on.symlink(text, link); });
    }
  }

  // Every name as both clients see it.
  void observe(int actor) {
    for (const int viewer : {1 - actor, actor}) {
      m_viewer = viewer;
      expectEqual("/", joined(m_local.list("/")), joined(client(viewer).list("/")));
      for (const char* path : kNames) object(client(viewer), path);
      for (const char* path : kLinkNames) object(client(viewer), path);
    }
  }
  void object(Remote& viewer, Path path) {
    const std::string expected = m_local.look(path);
    expectEqual(path, expected, viewer.look(path));
    const unsigned type = m_local.typeOf(path);
    if (type == S_IFLNK) expectEqual(path, m_local.target(path), viewer.target(path));
    if (type == S_IFDIR) expectEqual(path, joined(m_local.list(path)), joined(viewer.list(path)));
  }

  // The whole tree with its bytes, but for the middle of large holes.
  void everything(Path directory = "") {
    const std::string root = directory.empty() ? "/" : directory;
    m_viewer = ++m_passes % 2;
    Remote& viewer = client(m_viewer);
    if (directory.empty()) begin(m_viewer, "the whole tree");
    expectEqual(root, joined(m_local.list(root)), joined(viewer.list(root)));
    for (const std::string& name : m_local.list(root)) {
      const std::string path = std::string(directory).append("/").append(name);
      object(viewer, path);
      if (m_local.typeOf(path) == S_IFDIR) everything(path);
      if (m_local.typeOf(path) == S_IFREG) content(viewer, path);
    }
  }
  void content(Remote& viewer, Path path) {
    constexpr int file = 100;
    if (m_local.open(file, path) != 0 || viewer.open(file, path, O_RDONLY) != 0) {
      return differs(path + " cannot be opened: " + viewer.error());
    }
    m_local.eachPart(file, [&](Offset begin, Offset end) {
      begin -= std::min<Offset>(begin, 4096);
      for (; begin < end + 4096; begin += kMiB) {
        if (m_local.read(file, begin, kMiB) != viewer.read(file, begin, kMiB)) {
          differs(path + " has other bytes after " + std::to_string(begin));
        }
      }
    });
    m_local.close(file);
    viewer.close(file);
  }

  Remote& client(int fileOrClient) {
    return *m_clients[static_cast<std::size_t>(fileOrClient % 2)];
  }
  void begin(int number, const std::string& what) {
    m_what = std::to_string(++m_changes);
    m_what += ", client " + std::to_string(number + 1);
    m_what.append(", ").append(what).append(": ");
  }
  void expectEqual(Path path, const std::string& expected, const std::string& found) {
    if (expected == found) return;
    differs("client " + std::to_string(m_viewer + 1) + " sees " + path + " as [" +
            shortened(found) + "] instead of [" + shortened(expected) + "]");
  }
  void differs(const std::string& how) { m_differences.add(m_what + how); }
  std::uint64_t below(std::uint64_t limit) { return m_random() % limit; }

  Local m_local;
  std::array<std::unique_ptr<Remote>, 2> m_clients;
  std::mt19937_64 m_random;
  Differences m_differences;
  std::string m_what;
  int m_changes = 0;
  int m_failures = 0;
  int m_passes = 0;
  int m_viewer = 0;
};

// Fills the export with files, then with directories, and takes all away again, twice.
class Filling {
 public:
  explicit Filling(const char* url) : m_client(url) {}

  int run() {
    const unsigned first = fill();
    empty();
    const unsigned second = fill();
    empty();
    expect(first >= 8, "few files fitted: " + std::to_string(first));
    expect(first == second,
           "space was lost: " + std::to_string(second) + " files after " + std::to_string(first));
    std::printf("%u files fitted\n", first);
    return m_differences.count();
  }

 private:
  static constexpr std::size_t kSize = 65'536;

  static std::string fileName(unsigned number) { return "/file " + std::to_string(number); }
  static std::string directoryName(unsigned number) { return "/dir " + std::to_string(number); }

  unsigned fill() {
    unsigned files = 0;
    int failure = 0;
    while (failure == 0) failure = store(files, kSize) == 0 ? (++files, 0) : -ENOSPC;
    unsigned directories = 0;
    while ((failure = m_client.makeDirectory(directoryName(directories), 0755)) == 0) ++directories;
    told(failure, "mkdir");
    told(m_client.create(1, "/one more", 0644), "create");
    told(m_client.symlink("somewhere", "/one more"), "symlink");
    told(m_client.link(fileName(0), "/one more"), "link");
    expect(m_client.open(1, fileName(0)) == 0, "open: " + m_client.error());
    told(m_client.write(1, 100 * kSize, pattern(kSize, 0)), "write");
    m_client.close(1);

    std::set<std::string> expected;
    for (unsigned i = 0; i < files; ++i) expected.insert(fileName(i).substr(1));
    for (unsigned i = 0; i < directories; ++i) expected.insert(directoryName(i).substr(1));
    expect(m_client.list("/") == expected, "the full tree has other entries");
    check(0, files);

    // A name and the space of one file come back, and no more.
    expect(m_client.remove(fileName(1)) == 0, "remove: " + m_client.error());
    expect(store(1, kSize) == 0, "there is no space for a file of the same size");
    told(m_client.makeDirectory("/one more", 0755), "mkdir");
    check(0, files);
    return files;
  }

  void empty() {
    for (const std::string& name : m_client.list("/")) {
      const std::string path = "/" + name;
      expect(
          (name.starts_with("dir") ? m_client.removeDirectory(path) : m_client.remove(path)) == 0,
          "remove " + path + ": " + m_client.error());
    }
    expect(m_client.list("/").empty(), "entries are left");
  }

  // A file whole or not at all.
  int store(unsigned number, std::size_t size) {
    const std::string path = fileName(number);
    int failure = m_client.create(0, path, 0644);
    if (failure == 0) {
      const int written = m_client.write(0, 0, pattern(size, number));
      failure = std::min(0, written);
      if (written >= 0) {
        expect(written == static_cast<int>(size), "a short write of " + std::to_string(written));
      }
      m_client.close(0);
      if (failure != 0) {
        // What did not fit left no trace.
        expect(m_client.look(path).find(" size 0 ") != std::string::npos,
               "after a failed write " + m_client.look(path));
        expect(m_client.remove(path) == 0, "remove: " + m_client.error());
      }
    }
    if (failure != 0) told(failure, "write");
    return failure;
  }
  void check(unsigned begin, unsigned end) {
    for (unsigned i = begin; i < end; ++i) {
      expect(m_client.open(0, fileName(i)) == 0, fileName(i) + ": " + m_client.error());
      expect(m_client.read(0, 0, kSize + 1) == pattern(kSize, i), fileName(i) + " has other bytes");
      m_client.close(0);
    }
  }
  void told(int result, const std::string& what) {
    // Of a WRITE libnfs tells no more than that it failed.
    expect(result == (what == "write" ? -EFAULT : -ENOSPC),
           what + " without space is " + std::to_string(result) + ": " + m_client.error());
  }
  void expect(bool condition, const std::string& otherwise) {
    if (!condition) m_differences.add(otherwise);
  }

  Remote m_client;
  Differences m_differences;
};

// The tree has /file, /link and /directory with an entry; `name` is free.
int refused(const char* url) {
  Remote on(url);
  Differences differences;
  // Opened for reading, since the client itself declines the rest when ACCESS does not grant it.
  if (on.open(0, "/file", O_RDONLY) != 0) throw std::runtime_error(on.error());
  const std::vector<std::pair<const char*, std::function<int()>>> changes{
      {"write", [&] { return on.write(0, 0, "changed"); }},
      {"append", [&] { return on.write(0, 1'000'000, "changed"); }},
      {"truncate", [&] { return on.truncateOpen(0, 1); }},
      {"chmod", [&] { return on.chmod("/file", 0777); }},
      {"chown", [&] { return on.chown("/directory", 1, 1); }},
      {"times", [&] { return on.setTimes("/file", 1, 1); }},
      {"create", [&] { return on.create(1, "/name", 0644); }},
      {"create in a directory", [&] { return on.create(1, "/directory/name", 0644); }},
      {"mkdir", [&] { return on.makeDirectory("/name", 0755); }},
      {"symlink", [&] { return on.symlink("file", "/name"); }},
      {"link", [&] { return on.link("/file", "/name"); }},
      {"rename", [&] { return on.rename("/file", "/name"); }},
      {"rename over", [&] { return on.rename("/directory/inner", "/file"); }},
      {"rename a directory", [&] { return on.rename("/directory", "/name"); }},
      {"remove", [&] { return on.remove("/file"); }},
      {"remove a link", [&] { return on.remove("/link"); }},
      {"rmdir", [&] { return on.removeDirectory("/empty"); }},
  };
  for (const auto& [what, change] : changes) {
    const int result = change();
    std::printf("%s: %s\n", what, result < 0 ? on.error().c_str() : "done");
    if (result >= 0) differences.add(std::string(what) + " is not refused");
  }
  return differences.count();
}

int script(int argc, char** argv) {
  const std::uint64_t seed = argc > 3 ? std::stoull(argv[3]) : std::random_device()();
  const int changes = argc > 4 ? std::stoi(argv[4]) : 400;
  std::printf("seed %llu, %d random changes\n", static_cast<unsigned long long>(seed), changes);
  Script both(argv[1], argv[2], seed);
  both.handles();
  both.errors();
  both.randomly(changes);
  both.keepsakes();
  std::printf("%d differences\n", both.differences());
  return both.differences();
}

int run(int argc, char** argv) {
  const std::string first = argc > 1 ? argv[1] : "";
  if (argc == 3 && first == "--fill") return Filling(argv[2]).run() == 0 ? 0 : 1;
  if (argc == 3 && first == "--refused") return refused(argv[2]) == 0 ? 0 : 1;
  if (argc >= 3 && argc <= 5) return script(argc, argv) == 0 ? 0 : 1;
  std::fputs("usage: libnfs_change URL DIRECTORY [SEED [CHANGES]] | --fill URL | --refused URL\n",
             stderr);
  return 2;
}

}  // namespace

}  // namespace nfslib::e2e

int main(int argc, char** argv) {
  umask(0);
  try {
    return nfslib::e2e::run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "libnfs_change: %s\n", e.what());
    return 1;
  }
}
