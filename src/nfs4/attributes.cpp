#include "nfs4/attributes.h"

#include "common/clock.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

namespace nfslib::nfs4 {

using nfs::OperationResult;

namespace {

constexpr std::size_t kWords = 2;  // of the bitmaps that this server sends
using Words = std::array<unsigned, kWords>;

// What an attribute is computed from.
struct Object {
  const NfsHandle& handle;
  const MetaData& md;
};
using Values = Nfs4SetAttributes;

enum Access : unsigned { kNone = 0, kRead = 1, kSet = 2, kReadSet = kRead | kSet };

struct Attribute {
  unsigned number;
  unsigned access;
  void (*print)(MemoryStream& out, const Object& object);
  void (*decode)(MemoryStream& in, Values& values);
  // Applies the value if there is one, and says whether there was; nullptr: it cannot be applied.
  bool (*apply)(const Values& values, MetaData& md) = nullptr;
  // OK when there is no value or the object has it; nullptr: it is taken as it is.
  OperationResult (*compare)(const Values& values, const Object& object) = nullptr;
};

// ---- How values are written and read

nfstime4 timeOf(std::uint32_t seconds) { return {seconds, 0}; }
MemoryStream& operator<<(MemoryStream& out, const nfstime4& value) {
  return out << static_cast<std::uint64_t>(value.seconds) << value.nanoseconds;
}

template <auto field>
void decodeField(MemoryStream& in, Values& values) {
  in >> (values.*field).emplace();
}
template <auto field>
void decodeSetTime(MemoryStream& in, Values& values) {
  values.*field = readSetTime(in);
}
template <bool value>
void printBool(MemoryStream& out, const Object&) {
  out << value;
}
template <unsigned value>
void printWord(MemoryStream& out, const Object&) {
  out << value;
}
template <std::uint64_t value>
void printHyper(MemoryStream& out, const Object&) {
  out << value;
}
template <auto field>
void printField(MemoryStream& out, const Object& object) {
  out << object.md.*field;
}
template <auto field>
void printTime(MemoryStream& out, const Object& object) {
  out << timeOf(object.md.*field);
}
template <auto field>
void printNumberText(MemoryStream& out, const Object& object) {
  out << std::to_string(object.md.*field);
}

// ---- How values are applied and compared

template <auto field>
bool applyOwner(const std::optional<std::string>& text, MetaData& md) {
  if (text) md.*field = static_cast<std::uint32_t>(std::atoi(text->c_str()));
  return text.has_value();
}
template <auto field>
bool applyTime(const std::optional<nfstime4>& time, MetaData& md) {
  if (time) md.*field = static_cast<std::uint32_t>(time->seconds);
  return time.has_value();
}
OperationResult sameIf(bool condition) {
  return condition ? OperationResult::OK : OperationResult::NotSame;
}
template <auto value, auto field>
OperationResult sameField(const Values& values, const Object& object) {
  const auto& wanted = values.*value;
  return sameIf(!wanted || std::cmp_equal(*wanted, object.md.*field));
}
template <auto value, auto field>
OperationResult sameText(const Values& values, const Object& object) {
  const auto& wanted = values.*value;
  return sameIf(!wanted || *wanted == std::to_string(object.md.*field));
}
template <auto value, auto field>
OperationResult sameTime(const Values& values, const Object& object) {
  const auto& wanted = values.*value;
  return sameIf(!wanted || std::cmp_equal(wanted->seconds, object.md.*field));
}

constexpr unsigned kPersistentHandles = 0;
constexpr unsigned kLeaseSeconds = 600;
constexpr unsigned kAllAceTypes = 15;
constexpr std::uint64_t kMaxFileSize = 0x1000'0000'0000;
constexpr unsigned kMaxName = 256;
constexpr std::uint64_t kMaxTransfer = 8U << 20U;

void printSupported(MemoryStream& out, const Object&);
void printSettable(MemoryStream& out, const Object&);

using V = Values;
using M = MetaData;

// Names of RFC 7530 section 5.6 and 5.7, and RFC 5661 section 5.8.
constexpr std::array kAttributes{
    // supported_attrs
    Attribute{0, kRead, printSupported, decodeField<&V::supportedAttributes>},
    // type
    Attribute{1, kRead, printField<&M::type>, decodeField<&V::type>, nullptr,
              sameField<&V::type, &M::type>},
    // fh_expire_type
    Attribute{2, kRead, printWord<kPersistentHandles>, decodeField<&V::handleExpireType>},
    // change
    Attribute{
        3, kRead,
        [](MemoryStream& out, const Object& object) { out << std::uint64_t{object.md.modifyTime}; },
        decodeField<&V::change>, nullptr, sameField<&V::change, &M::modifyTime>},
    // size
    Attribute{4, kReadSet, printField<&M::size>, decodeField<&V::size>,
              [](const V& values, M& md) {
                if (values.size) md.size = *values.size;
                return values.size.has_value();
              },
              sameField<&V::size, &M::size>},
    // link_support, symlink_support, named_attr
    Attribute{5, kRead, printBool<true>, decodeField<&V::linkSupport>},
    Attribute{6, kRead, printBool<true>, decodeField<&V::symlinkSupport>},
    Attribute{7, kRead, printBool<false>, decodeField<&V::namedAttributes>},
    // fsid: the same for every export
    Attribute{8, kRead, [](MemoryStream& out, const Object&) { out << FilesystemId{}; },
              decodeField<&V::fileSystemId>},
    // unique_handles
    Attribute{9, kRead, printBool<true>, decodeField<&V::uniqueHandles>},
    // lease_time
    Attribute{10, kRead, printWord<kLeaseSeconds>, decodeField<&V::leaseTime>},
    // rdattr_error
    Attribute{11, kRead, printWord<0>, decodeField<&V::readAttributeError>, nullptr,
              [](const V& values, const Object&) {
                return values.readAttributeError ? OperationResult::InvalidArgument
                                                 : OperationResult::OK;
              }},
    // acl: may be sent, but no host sets it
    Attribute{12, kReadSet, printField<&M::acl>, decodeField<&V::acl>},
    // aclsupport
    Attribute{13, kRead, printWord<kAllAceTypes>, decodeField<&V::aclSupport>},
    // cansettime
    Attribute{15, kRead, printBool<true>, decodeField<&V::canSetTime>},
    // case_preserving
    Attribute{17, kRead, printBool<true>, decodeField<&V::casePreserving>},
    // filehandle
    Attribute{19, kRead, [](MemoryStream& out, const Object& object) { out << object.handle; },
              decodeField<&V::handle>, nullptr,
              [](const V& values, const Object& object) {
                return sameIf(!values.handle || *values.handle == object.handle);
              }},
    // fileid
    Attribute{20, kRead, printField<&M::fileId>, decodeField<&V::fileId>, nullptr,
              sameField<&V::fileId, &M::fileId>},
    // homogeneous
    Attribute{26, kRead, printBool<true>, decodeField<&V::homogeneous>},
    // maxfilesize, maxname, maxread, maxwrite
    Attribute{27, kRead, printHyper<kMaxFileSize>, decodeField<&V::maxFileSize>},
    Attribute{29, kRead, printWord<kMaxName>, decodeField<&V::maxName>},
    Attribute{30, kRead, printHyper<kMaxTransfer>, decodeField<&V::maxRead>},
    Attribute{31, kRead, printHyper<kMaxTransfer>, decodeField<&V::maxWrite>},
    // mode
    Attribute{33, kReadSet,
              [](MemoryStream& out, const Object& object) { out << unsigned{object.md.mode}; },
              decodeField<&V::mode>,
              [](const V& values, M& md) {
                if (values.mode) md.mode = static_cast<std::uint16_t>(*values.mode);
                return values.mode.has_value();
              },
              sameField<&V::mode, &M::mode>},
    // no_trunc
    Attribute{34, kRead, printBool<true>, decodeField<&V::noTruncation>},
    // numlinks
    Attribute{35, kRead, printField<&M::linkCount>, decodeField<&V::linkCount>, nullptr,
              sameField<&V::linkCount, &M::linkCount>},
    // owner, owner_group
    Attribute{36, kReadSet, printNumberText<&M::uid>, decodeField<&V::owner>,
              [](const V& values, M& md) { return applyOwner<&M::uid>(values.owner, md); },
              sameText<&V::owner, &M::uid>},
    Attribute{37, kReadSet, printNumberText<&M::gid>, decodeField<&V::ownerGroup>,
              [](const V& values, M& md) { return applyOwner<&M::gid>(values.ownerGroup, md); },
              sameText<&V::ownerGroup, &M::gid>},
    // time_access
    Attribute{47, kRead, printTime<&M::accessTime>, decodeField<&V::timeAccess>, nullptr,
              sameTime<&V::timeAccess, &M::accessTime>},
    // time_access_set
    Attribute{
        48, kSet, nullptr, decodeSetTime<&V::timeAccess>,
        [](const V& values, M& md) { return applyTime<&M::accessTime>(values.timeAccess, md); }},
    // time_metadata
    Attribute{52, kRead, printTime<&M::changeTime>, decodeField<&V::timeMetaData>, nullptr,
              sameTime<&V::timeMetaData, &M::changeTime>},
    // time_modify
    Attribute{53, kRead, printTime<&M::modifyTime>, decodeField<&V::timeModify>, nullptr,
              sameTime<&V::timeModify, &M::modifyTime>},
    // time_modify_set
    Attribute{
        54, kSet, nullptr, decodeSetTime<&V::timeModify>,
        [](const V& values, M& md) { return applyTime<&M::modifyTime>(values.timeModify, md); }},
    // mounted_on_fileid
    Attribute{55, kRead, printField<&M::fileId>, decodeField<&V::mountedOnFileId>, nullptr,
              sameField<&V::mountedOnFileId, &M::fileId>},
    // suppattr_exclcreat
    Attribute{75, kNone, printSettable, decodeField<&V::supportedExclusiveCreate>},
};

constexpr Words wordsOf(unsigned access) {
  Words words{};
  for (const Attribute& attribute : kAttributes) {
    if ((attribute.access & access) != 0)
      words[attribute.number / 32] |= 1U << attribute.number % 32;
  }
  return words;
}
constexpr Words kReadable = wordsOf(kRead);
constexpr Words kSettable = wordsOf(kSet);
// The readable ones, and the two times that can only be set.
constexpr Words kSupported{kReadable[0], kReadable[1] | kSettable[1]};
static_assert(kReadable == Words{0xEC1ABFFF, 0x00B0803E});
static_assert(kSettable == Words{0x00001010, 0x00410032});
static_assert(kSupported == Words{0xEC1ABFFF, 0x00F1803E});
static_assert(std::ranges::is_sorted(kAttributes, {}, &Attribute::number));

void printWords(MemoryStream& out, const Words& words) {
  out << unsigned{kWords};
  for (const unsigned& word : words) out << word;
}
void printSupported(MemoryStream& out, const Object&) { printWords(out, kSupported); }
void printSettable(MemoryStream& out, const Object&) { printWords(out, kSettable); }

const Attribute* findAttribute(unsigned number) {
  const auto row = std::ranges::lower_bound(kAttributes, number, {}, &Attribute::number);
  return row != kAttributes.end() && row->number == number ? &*row : nullptr;
}

bool hasBit(const Bitmap& bitmap, unsigned number) {
  return number / 32 < bitmap.size() && (bitmap[number / 32] >> number % 32 & 1U) != 0;
}

// Calls `visit` with the rows of the attributes that can be accessed so and are in the bitmap.
template <class Visit>
void forEach(const Bitmap& bitmap, unsigned access, const Visit& visit) {
  for (const Attribute& attribute : kAttributes) {
    if ((attribute.access & access) != 0 && hasBit(bitmap, attribute.number)) visit(attribute);
  }
}

Values decodeAll(MemoryStream& in, const Bitmap& bitmap, unsigned access) {
  Values values;
  forEach(bitmap, access, [&](const Attribute& attribute) { attribute.decode(in, values); });
  return values;
}

bool isWithin(const Bitmap& bitmap, const Words& allowed, std::size_t words) {
  for (std::size_t i = 0; i < words; ++i) {
    if ((bitmap[i] & ~allowed[i]) != 0) return false;
  }
  return true;
}

}  // namespace

std::string bitmap4ToStr(const Bitmap& bitmap) {
  std::string text;
  for (const unsigned word : bitmap) (text += text.empty() ? "" : ", ") += std::to_string(word);
  return text;
}

void printAttributeValue(MemoryStream& out, unsigned attribute, const NfsHandle& handle,
                         const MetaData& md) {
  const Attribute* row = findAttribute(attribute);
  if (row != nullptr && row->print != nullptr) row->print(out, {handle, md});
}

void printAttributes(MemoryStream& out, const Bitmap& requested, const NfsHandle& handle,
                     const MetaData& md) {
  const auto words = static_cast<unsigned>(std::min(requested.size(), kWords));
  out << words;
  for (unsigned i = 0; i < words; ++i) out << (requested[i] & kReadable[i]);
  const unsigned lengthPosition = out.getOutputPosition();
  out << 0U;
  const Object object{handle, md};
  forEach(requested, kRead, [&](const Attribute& attribute) { attribute.print(out, object); });
  const unsigned end = out.getOutputPosition();
  out.seekOutput(lengthPosition, SeekOrigin::Begin);
  out << end - lengthPosition - 4;
  out.seekOutput(end, SeekOrigin::Begin);
}

bool areReadable(const Bitmap& bitmap) {
  return bitmap.size() <= kWords && isWithin(bitmap, kReadable, bitmap.size());
}

nfstime4 readSetTime(MemoryStream& in) {
  constexpr unsigned kSetToClientTime = 1;
  unsigned how = 0;
  nfstime4 time;
  in >> how;
  if (how == kSetToClientTime) {
    in >> time;
  } else {
    time.seconds = nfslib::utility::currentSeconds();
  }
  return time;
}

void readAttributeValue(MemoryStream& in, unsigned attribute, Nfs4SetAttributes& values) {
  if (const Attribute* row = findAttribute(attribute)) row->decode(in, values);
}

Nfs4SetAttributes readWritableAttributes(MemoryStream& in, const Bitmap& bitmap,
                                         OperationResult& status) {
  unsigned length = 0;
  in >> length;  // of the values, which tell their own lengths
  if (!isWithin(bitmap, kSettable, std::min(bitmap.size(), kWords))) {
    status = OperationResult::AttributeNotSupported;
  }
  return decodeAll(in, bitmap, kSet);
}

Nfs4SetAttributes readReadableAttributes(MemoryStream& in, const Bitmap& bitmap) {
  return decodeAll(in, bitmap, kRead);
}

Bitmap setAttributes(const Nfs4SetAttributes& values, MetaData& md) {
  Words applied{};
  for (const Attribute& attribute : kAttributes) {
    if (attribute.apply == nullptr || !attribute.apply(values, md)) continue;
    applied[attribute.number / 32] |= 1U << attribute.number % 32;
  }
  if (applied[1] != 0) return {applied[0], applied[1]};
  if (applied[0] != 0) return {applied[0]};
  return {};
}

OperationResult compareAttributes(const Nfs4SetAttributes& values, const NfsHandle& handle,
                                  const MetaData& md) {
  for (const Attribute& attribute : kAttributes) {
    if (attribute.compare == nullptr) continue;
    const OperationResult result = attribute.compare(values, {handle, md});
    if (result != OperationResult::OK) return result;
  }
  return OperationResult::OK;
}

}  // namespace nfslib::nfs4
