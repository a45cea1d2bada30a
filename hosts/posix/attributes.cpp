#include "posix/attributes.h"

#include <nfslib/exception.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace nfslib::hosts::posix {

namespace {

constexpr unsigned kWanted = STATX_BASIC_STATS | STATX_BTIME;

// 32 bits of seconds: what lies outside is shown as the nearest moment inside.
std::uint32_t seconds(const struct statx_timestamp& time) {
  return static_cast<std::uint32_t>(std::clamp<std::int64_t>(time.tv_sec, 0, UINT32_MAX));
}

timespec exactly(const struct statx_timestamp& time) {
  return {time.tv_sec, static_cast<long>(time.tv_nsec)};
}

timespec wholeSeconds(std::uint32_t time) { return {static_cast<time_t>(time), 0}; }

// The steps of one change, each with its way back.
class Steps {
 public:
  explicit Steps(std::string shown) : m_shown(std::move(shown)) {}

  // Does `step`, whose name in messages is `what`. When it returns false, takes the earlier ones
  // back and throws for errno.
  void run(const char* what, const std::function<bool()>& step, std::function<void()> undo) {
    m_undo.reserve(m_undo.size() + 1);
    if (step()) {
      m_undo.push_back(std::move(undo));
      return;
    }
    const int error = errno;
    std::for_each(m_undo.rbegin(), m_undo.rend(), [](const auto& back) { back(); });
    fail(error, std::string(what) + " of " + m_shown);
  }

 private:
  const std::string m_shown;
  std::vector<std::function<void()>> m_undo;
};

}  // namespace

bool readStatus(int fd, struct statx& status) {
  return ::statx(fd, "", AT_EMPTY_PATH, kWanted, &status) == 0;
}

bool readStatus(int directory, const char* name, struct statx& status) {
  return ::statx(directory, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, kWanted, &status) == 0;
}

FileType typeOf(const struct statx& status) {
  switch (status.stx_mode & S_IFMT) {
    case S_IFDIR:
      return FileType::Directory;
    case S_IFLNK:
      return FileType::SymbolicLink;
    case S_IFBLK:
      return FileType::BlockDevice;
    case S_IFCHR:
      return FileType::CharacterDevice;
    case S_IFSOCK:
      return FileType::Socket;
    case S_IFIFO:
      return FileType::NamedPipe;
    default:
      return FileType::Regular;
  }
}

MetaData toMetaData(const struct statx& status, std::uint64_t fileId) {
  MetaData md;
  md.type = static_cast<std::uint32_t>(typeOf(status));
  md.fileId = fileId;
  md.size = status.stx_size;
  md.linkCount = status.stx_nlink;
  md.uid = status.stx_uid;
  md.gid = status.stx_gid;
  md.accessTime = seconds(status.stx_atime);
  md.changeTime = seconds(status.stx_ctime);
  md.modifyTime = seconds(status.stx_mtime);
  md.mode = static_cast<std::uint16_t>(status.stx_mode & 07777);
  return md;
}

MetaData readMetaData(int fd, std::uint64_t fileId, const std::string& shown) {
  struct statx status {};
  if (!readStatus(fd, status)) fail(errno, "read the attributes of " + shown);
  return toMetaData(status, fileId);
}

void changeMetaData(Tree& tree, int fd, const MetaData& wanted, const std::string& shown,
                    const std::function<bool(std::uint64_t)>& resize) {
  const std::lock_guard lock(tree.modeLock);
  Changes::Scope change(tree.changes);
  struct statx status {};
  if (!readStatus(fd, status)) fail(errno, "read the attributes of " + shown);
  const MetaData now = toMetaData(status, 0);

  constexpr std::uint32_t kUnchanged = UINT32_MAX;  // what chown(2) takes for "leave it"
  const bool newOwner = wanted.uid != now.uid || wanted.gid != now.gid;
  if (newOwner && (wanted.uid == kUnchanged || wanted.gid == kUnchanged)) {
    throw SystemNfsException(EINVAL, "Cannot change the owner of " + shown + ": " +
                                         std::to_string(kUnchanged) +
                                         " is neither a user nor a group.");
  }
  // Links have no mode of their own on Linux; clients set one all the same.
  const bool newMode = wanted.mode != now.mode && !isType(now, FileType::SymbolicLink);
  const bool newSize = resize && wanted.size != now.size;
  const bool newTimes = wanted.accessTime != now.accessTime || wanted.modifyTime != now.modifyTime;

  const auto setMode = [&](std::uint16_t mode) { return ::chmod(procName(fd).c_str(), mode) == 0; };
  const auto setOwner = [&](std::uint32_t uid, std::uint32_t gid) {
    return ::fchownat(fd, "", uid, gid, AT_EMPTY_PATH) == 0;
  };
  const auto setTimes = [&](const std::array<timespec, 2>& times) {
    return ::utimensat(fd, "", times.data(), AT_EMPTY_PATH) == 0;
  };
  const std::array<timespec, 2> oldTimes{exactly(status.stx_atime), exactly(status.stx_mtime)};
  constexpr timespec kOmit{0, UTIME_OMIT};
  const std::array<timespec, 2> newTimeValues{
      wanted.accessTime != now.accessTime ? wholeSeconds(wanted.accessTime) : kOmit,
      wanted.modifyTime != now.modifyTime ? wholeSeconds(wanted.modifyTime) : kOmit};

  Steps steps(shown);
  if (newOwner) {
    steps.run(
        "change the owner",
        [&] {
          return setOwner(wanted.uid != now.uid ? wanted.uid : kUnchanged,
                          wanted.gid != now.gid ? wanted.gid : kUnchanged);
        },
        [&] {
          setOwner(now.uid, now.gid);
          // A new owner cost the file its set-user-id and set-group-id bits.
          if (!isType(now, FileType::SymbolicLink)) setMode(now.mode);
        });
  }
  if (newMode) {
    steps.run(
        "change the mode", [&] { return setMode(wanted.mode); }, [&] { setMode(now.mode); });
  }
  if (newTimes) {
    steps.run(
        "change the times", [&] { return setTimes(newTimeValues); }, [&] { setTimes(oldTimes); });
  }
  if (newSize) {
    steps.run(
        "change the size", [&] { return resize(wanted.size); }, [] {});
    // Resizing moved the modification time; setting it has just been seen to be allowed.
    if (newTimes) setTimes(newTimeValues);
  }
  change.left(fd);
}

}  // namespace nfslib::hosts::posix
