#include "mount_table.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nfslib::tool {

namespace {

constexpr const char* kDirectory = "/run/nfslib";
constexpr const char* kNoAlias = "-";

// As in the system's own tables of mounts: a blank, a backslash or a control character is its
// number in octal.
std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (static_cast<unsigned char>(c) > ' ' && c != '\\' && c != 0x7F) {
      out += c;
      continue;
    }
    char octal[5];
    std::snprintf(octal, sizeof octal, "\\%03o",
                  static_cast<unsigned>(static_cast<unsigned char>(c)));
    out += octal;
  }
  return out;
}

std::string unescaped(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isNumber = text[i] == '\\' && i + 3 < text.size() &&
                          text.find_first_not_of("01234567", i + 1) >= i + 4;
    if (!isNumber) {
      out += text[i];
      continue;
    }
    out += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
    i += 3;
  }
  return out;
}

std::runtime_error failure(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno) + ".");
}

// Whether some process holds the lock of the record's file.
bool isLocked(int descriptor) {
  return flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

}  // namespace

RecordedMount::RecordedMount(const MountRecord& record)
    : m_file(std::string(kDirectory) + "/" + std::to_string(record.pid)) {
  if (mkdir(kDirectory, 0755) != 0 && errno != EEXIST) {
    throw failure(std::string("Cannot make ") + kDirectory);
  }
  // Written beside and moved into place when it is whole and locked.
  const std::string fresh = m_file + ".new";
  m_descriptor = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (m_descriptor < 0) throw failure("Cannot write " + fresh);
  const std::string line = escaped(record.source) + ' ' + escaped(record.mountPoint) + ' ' +
                           std::to_string(record.version) + ' ' + std::to_string(record.pid) + ' ' +
                           (record.alias.empty() ? kNoAlias : record.alias) + '\n';
  const bool written =
      write(m_descriptor, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  if (!written || flock(m_descriptor, LOCK_EX | LOCK_NB) != 0 ||
      rename(fresh.c_str(), m_file.c_str()) != 0) {
    const auto error = failure("Cannot write " + m_file);
    unlink(fresh.c_str());
    close(m_descriptor);
    throw error;
  }
}

RecordedMount::~RecordedMount() {
  unlink(m_file.c_str());
  close(m_descriptor);
}

std::vector<MountRecord> recordedMounts() {
  std::vector<MountRecord> records;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(kDirectory, error)) {
    if (entry.path().extension() == ".new") continue;
    MountRecord record;
    record.file = entry.path();
    const int descriptor = open(record.file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (descriptor < 0) continue;  // it has just gone
    record.isServed = isLocked(descriptor);
    close(descriptor);
    std::ifstream in(record.file);
    std::string source, mountPoint;
    if (!(in >> source >> mountPoint >> record.version >> record.pid >> record.alias)) continue;
    if (record.alias == kNoAlias) record.alias.clear();
    record.source = unescaped(source);
    record.mountPoint = unescaped(mountPoint);
    records.push_back(std::move(record));
  }
  std::sort(records.begin(), records.end(),
            [](const MountRecord& a, const MountRecord& b) { return a.mountPoint < b.mountPoint; });
  return records;
}

bool isMountPoint(const std::string& absolutePath) {
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string id, parent, device, root, mountPoint;
    fields >> id >> parent >> device >> root >> mountPoint;
    if (unescaped(mountPoint) == absolutePath) return true;
  }
  return false;
}

std::string absoluteMountPoint(const std::string& mountPoint) {
  constexpr int kMaxLinks = 40;
  std::filesystem::path path = std::filesystem::absolute(mountPoint);
  for (int links = 0; links < kMaxLinks; ++links) {
    path = path.lexically_normal();
    if (path.filename().empty()) path = path.parent_path();  // a slash at its end
    if (path == path.root_path()) return path;
    path = std::filesystem::weakly_canonical(path.parent_path()) / path.filename();
    std::error_code isNoLink;
    const auto target = std::filesystem::read_symlink(path, isNoLink);
    if (isNoLink) return path;
    path = path.parent_path() / target;
  }
  throw std::runtime_error(mountPoint + " leads through too many symbolic links.");
}

}  // namespace nfslib::tool
