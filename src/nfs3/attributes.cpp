#include "nfs3/attributes.h"

#include "common/xdr_records.h"
#include "nfs3/wire_sizes.h"

#include <array>

#include <arpa/inet.h>

namespace nfslib::nfs3 {

namespace {

constexpr std::uint32_t high(std::uint64_t value) {
  return static_cast<std::uint32_t>(value >> 32);
}
constexpr std::uint32_t low(std::uint64_t value) { return static_cast<std::uint32_t>(value); }

constexpr std::uint32_t kNoNanoseconds = 0;

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
      kNoNanoseconds,
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
             << kNoNanoseconds;
}

MemoryStream& operator<<(MemoryStream& out, const WccData& value) {
  return out << value.before << value.after;
}

MemoryStream& operator<<(MemoryStream& out, const PostOpHandle& value) {
  return out << true << value.handle;
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

}  // namespace nfslib::nfs3
