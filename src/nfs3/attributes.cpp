#include "nfs3/attributes.h"

#include "common/clock.h"
#include "common/xdr_records.h"
#include "fs/nfs_file_system.h"
#include "nfs3/wire_sizes.h"

#include <algorithm>
#include <array>

#include <arpa/inet.h>

namespace nfslib::nfs3 {

namespace {

constexpr std::uint32_t high(std::uint64_t value) {
  return static_cast<std::uint32_t>(value >> 32);
}
constexpr std::uint32_t low(std::uint64_t value) { return static_cast<std::uint32_t>(value); }

constexpr std::uint32_t kNoNanoseconds = 0;

// A value that is there when the bool in front of it says so (set_mode3 and the like).
template <class Integer>
void readOptional(MemoryStream& in, std::optional<Integer>& value) {
  bool isThere = false;
  in >> isThere;
  if (isThere) in >> value.emplace();
}

MemoryStream& operator>>(MemoryStream& in, SetAttributes3::SetTime& value) {
  using enum SetAttributes3::TimeHow;
  std::uint32_t how = 0;
  std::uint32_t nanoseconds = 0;
  in >> how;
  value.how = SetAttributes3::TimeHow{how};
  switch (value.how) {
    case DontChange:
    case ToServerTime:
      return in;
    case ToClientTime:
      return in >> value.seconds >> nanoseconds;
  }
  in.errorOccurred();
  return in;
}

void apply(const SetAttributes3::SetTime& wanted, std::uint32_t& seconds) {
  using enum SetAttributes3::TimeHow;
  switch (wanted.how) {
    case DontChange:
      return;
    case ToServerTime:
      seconds = nfslib::utility::currentSeconds();
      return;
    case ToClientTime:
      seconds = wanted.seconds;
      return;
  }
}

}  // namespace

// Every reply carries attributes and a page of READDIRPLUS hundreds of them, so the words are put
// in order first and written in one go.
MemoryStream& operator<<(MemoryStream& out, const fattr3& value) {
  std::array words{
      value.type,
      value.mode,
      value.linkCount,
      value.uid,
      value.gid,
      high(value.size),
      low(value.size),
      high(value.used),
      low(value.used),
      0U,  // rdev: specdata1
      0U,  // rdev: specdata2
      high(value.fileSystemId),
      low(value.fileSystemId),
      high(value.fileId),
      low(value.fileId),
      value.accessTime,
      kNoNanoseconds,
      value.modifyTime,
      kNoNanoseconds,
      value.changeTime,
      value.changeNanoseconds,
  };
  static_assert(sizeof words == kFattr3Size);
  for (std::uint32_t& word : words) word = htonl(word);
  out.write(words.data(), sizeof words);
  return out;
}

MemoryStream& operator<<(MemoryStream& out, const PostOpAttr& value) {
  return out << true << value.attributes;
}

MemoryStream& operator<<(MemoryStream& out, const PreOpAttr& value) {
  return out << true << value.size << value.modifyTime << kNoNanoseconds << value.changeTime
             << value.changeNanoseconds;
}

MemoryStream& operator<<(MemoryStream& out, const WccData& value) {
  return out << value.before << value.after;
}

MemoryStream& operator<<(MemoryStream& out, const PostOpHandle& value) {
  return out << true << value.handle;
}

MemoryStream& operator>>(MemoryStream& in, SetAttributes3& value) {
  readOptional(in, value.mode);
  readOptional(in, value.uid);
  readOptional(in, value.gid);
  readOptional(in, value.size);
  return in >> value.accessTime >> value.modifyTime;
}

void SetAttributes3::applyTo(MetaData& md) const {
  if (mode) md.mode = static_cast<std::uint16_t>(*mode);
  if (uid) md.uid = *uid;
  if (gid) md.gid = *gid;
  if (size) md.size = *size;
  apply(accessTime, md.accessTime);
  apply(modifyTime, md.modifyTime);
}

nfslib::utility::AttributeChange SetAttributes3::change() const {
  const auto isSetTo = [&](TimeHow how) { return accessTime.how == how || modifyTime.how == how; };
  return {.mode = mode.has_value(),
          .size = size.has_value(),
          .uid = uid,
          .gid = gid,
          .timeOfServer = isSetTo(TimeHow::ToServerTime),
          .timeOfClient = isSetTo(TimeHow::ToClientTime)};
}

fattr3 procedures::utility::getAttributes(const NfsHandle& handle, const MetaData& md) {
  return {
      .type = md.type,
      .mode = md.mode,
      .linkCount = md.linkCount,
      .uid = md.uid,
      .gid = md.gid,
      .size = md.size,
      .used = md.size,
      .fileSystemId = handle.fileSystemId,
      .fileId = handle.objectId,
      .accessTime = md.accessTime,
      .modifyTime = md.modifyTime,
      .changeTime = md.changeTime,
  };
}

fattr3 procedures::utility::getAttributes(const NfsFileSystem& view, const NfsHandle& handle,
                                          const MetaData& md) {
  fattr3 shown = getAttributes(handle, md);
  shown.linkCount = std::max(shown.linkCount, view.profile().fewestLinks);
  const auto [seconds, nanoseconds] = view.changeTimeOf(md);
  shown.changeTime = seconds;
  shown.changeNanoseconds = nanoseconds;
  return shown;
}

}  // namespace nfslib::nfs3
