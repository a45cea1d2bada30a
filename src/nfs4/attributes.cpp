#include "nfs4/attributes.h"

#include "common/clock.h"
#include "fs/nfs_file_system.h"
#include "nfs4/owner_names.h"
#include "nfs4/pseudo_root.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <span>
#include <utility>

namespace nfslib::nfs4 {

using nfs::OperationResult;

namespace {

using Words = std::array<unsigned, 3>;
using Object = ShownObject;
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
  // nullptr: every object has it.
  bool (*isThere)(const Object& object) = nullptr;
};

}  // namespace

class AttributeTable {
 public:
  constexpr AttributeTable(std::span<const Attribute> all, std::size_t sentWords)
      : rows(all), words(sentWords), readable(wordsOf(kRead)), settable(wordsOf(kSet)) {}

  const Attribute* find(unsigned number) const {
    const auto row = std::ranges::lower_bound(rows, number, {}, &Attribute::number);
    return row != rows.end() && row->number == number ? &*row : nullptr;
  }
  // Those that can be read or set. What the table announces does not depend on what is asked for.
  constexpr unsigned supported(std::size_t word) const { return readable[word] | settable[word]; }

  const std::span<const Attribute> rows;  // in the order of their numbers
  const std::size_t words;                // of the bitmaps that are sent
  const Words readable;
  const Words settable;

 private:
  constexpr Words wordsOf(unsigned access) const {
    Words all{};
    for (const Attribute& attribute : rows) {
      if ((attribute.access & access) != 0)
        all[attribute.number / 32] |= 1U << attribute.number % 32;
    }
    return all;
  }
};

namespace {

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
constexpr unsigned kAllAceTypes = 15;
constexpr std::uint64_t kMaxFileSize = 0x1000'0000'0000;
constexpr unsigned kMaxName = 256;
constexpr unsigned kPermissions = 07777;
constexpr std::uint64_t kMaxTransfer = 8U << 20U;

void printSupported(MemoryStream& out, const Object& object);
void printSettable(MemoryStream& out, const Object& object);

using V = Values;
using M = MetaData;

// Names of RFC 7530 section 5.6 and 5.7, and RFC 5661 section 5.8.
constexpr std::array kClassicRows{
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
    Attribute{10, kRead,
              [](MemoryStream& out, const Object& object) { out << object.profile.leaseSeconds; },
              decodeField<&V::leaseTime>},
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

// ---- What the modern profile has beside and instead of these

void decodeNumber(MemoryStream& in, Values& values) { in >> values.number; }
void decodeFlag(MemoryStream& in, Values& values) { in >> values.flag; }

template <auto field>
void printStatistic(MemoryStream& out, const Object& object) {
  out << (*object.statistics()).*field;
}
bool hasStatistics(const Object& object) { return object.statistics().has_value(); }
template <unsigned number, auto field>
constexpr Attribute statistic() {
  return {number, kRead, printStatistic<field>, decodeNumber, nullptr, nullptr, hasStatistics};
}

bool hasAcl(const Object& object) { return !object.md.acl.empty(); }

std::uint64_t changeOf(const Object& object) {
  return object.view != nullptr ? object.view->changeOf(object.md)
                                : std::uint64_t{object.md.modifyTime} << 32U;
}
std::uint64_t mountedOnFileId(const Object& object) {
  return object.isExportRoot ? placeInPseudoRoot(object.handle.fileSystemId) : object.md.fileId;
}
std::uint64_t spaceUsed(const Object& object) {
  constexpr std::uint64_t kBlock = 512;
  return object.md.size / kBlock * kBlock + (object.md.size % kBlock != 0 ? kBlock : 0);
}
std::uint32_t linksOf(const Object& object) {
  return std::max(object.md.linkCount, object.profile.fewestLinks);
}
unsigned modeOf(const Object& object) { return object.md.mode & kPermissions; }
// One that is computed from the object alone.
template <auto computed>
void print(MemoryStream& out, const Object& object) {
  out << computed(object);
}
template <auto value, auto computed>
OperationResult same(const Values& values, const Object& object) {
  const auto& wanted = values.*value;
  return sameIf(!wanted || *wanted == computed(object));
}

// A number in decimal, or a name of this system; what is behind the "@" is anybody's. The value is
// the number's text.
template <auto field, auto find>
void decodeOwner(MemoryStream& in, Values& values) {
  std::string text;
  in >> text;
  const std::optional<std::uint32_t> number = find(text);
  if (!number) values.unknownOwner = true;
  values.*field = number ? std::to_string(*number) : "";
}
template <auto field>
bool applyNumber(const std::optional<std::string>& text, MetaData& md) {
  if (text) md.*field = static_cast<std::uint32_t>(std::strtoul(text->c_str(), nullptr, 10));
  return text.has_value();
}

constexpr unsigned kModernMaxName = 255;
constexpr unsigned kMaxLinks = 1023;
// A record of 1 MiB holds this and what is around it.
constexpr std::uint64_t kModernTransfer = (1U << 20U) - 4096U;

using S = FileSystemStatistics;

constexpr std::array kModernChanges{
    // change
    Attribute{3, kRead, print<changeOf>, decodeField<&V::change>, nullptr,
              same<&V::change, changeOf>},
    // fsid: the export's number, 0 for the pseudo-root
    Attribute{8, kRead,
              [](MemoryStream& out, const Object& object) {
                out << FilesystemId{object.handle.fileSystemId, 0};
              },
              decodeField<&V::fileSystemId>},
    // acl, aclsupport: not set, and not there for an object without a list
    Attribute{12, kRead, printField<&M::acl>, decodeField<&V::acl>, nullptr, nullptr, hasAcl},
    Attribute{13, kRead, printWord<kAllAceTypes>, decodeField<&V::aclSupport>, nullptr, nullptr,
              hasAcl},
    // case_insensitive, chown_restricted
    Attribute{16, kRead, printBool<false>, decodeFlag},
    Attribute{18, kRead, printBool<true>, decodeFlag},
    // files_avail, files_free, files_total
    statistic<21, &S::availableFiles>(),
    statistic<22, &S::freeFiles>(),
    statistic<23, &S::totalFiles>(),
    // maxlink, maxname, maxread, maxwrite
    Attribute{28, kRead, printWord<kMaxLinks>,
              [](MemoryStream& in, V&) {
                unsigned links = 0;
                in >> links;
              }},
    Attribute{29, kRead, printWord<kModernMaxName>, decodeField<&V::maxName>},
    Attribute{30, kRead, printHyper<kModernTransfer>, decodeField<&V::maxRead>},
    Attribute{31, kRead, printHyper<kModernTransfer>, decodeField<&V::maxWrite>},
    // mode
    Attribute{33, kReadSet, print<modeOf>, decodeField<&V::mode>,
              [](const V& values, M& md) {
                if (values.mode) md.mode = static_cast<std::uint16_t>(*values.mode & kPermissions);
                return values.mode.has_value();
              },
              same<&V::mode, modeOf>},
    // numlinks
    Attribute{35, kRead, print<linksOf>, decodeField<&V::linkCount>, nullptr,
              same<&V::linkCount, linksOf>},
    // owner, owner_group
    Attribute{36, kReadSet, printNumberText<&M::uid>, decodeOwner<&V::owner, findUser>,
              [](const V& values, M& md) { return applyNumber<&M::uid>(values.owner, md); },
              sameText<&V::owner, &M::uid>},
    Attribute{37, kReadSet, printNumberText<&M::gid>, decodeOwner<&V::ownerGroup, findGroup>,
              [](const V& values, M& md) { return applyNumber<&M::gid>(values.ownerGroup, md); },
              sameText<&V::ownerGroup, &M::gid>},
    // space_avail, space_free, space_total, space_used
    statistic<42, &S::availableBytes>(),
    statistic<43, &S::freeBytes>(),
    statistic<44, &S::totalBytes>(),
    Attribute{45, kRead, print<spaceUsed>, decodeNumber},
    // time_delta: a second
    Attribute{51, kRead, [](MemoryStream& out, const Object&) { out << timeOf(1); },
              [](MemoryStream& in, V&) {
                nfstime4 delta;
                in >> delta;
              }},
    // mounted_on_fileid
    Attribute{55, kRead, print<mountedOnFileId>, decodeField<&V::mountedOnFileId>, nullptr,
              same<&V::mountedOnFileId, mountedOnFileId>},
    // suppattr_exclcreat, of minor version 1
    Attribute{75, kRead, printSettable, decodeField<&V::supportedExclusiveCreate>},
};
static_assert(std::ranges::is_sorted(kClassicRows, {}, &Attribute::number));
static_assert(std::ranges::is_sorted(kModernChanges, {}, &Attribute::number));

constexpr bool isChanged(const Attribute& classic) {
  return std::ranges::binary_search(kModernChanges, classic.number, {}, &Attribute::number);
}
constexpr auto kModernRows = [] {
  constexpr auto kKept = kClassicRows.size() -
                         static_cast<std::size_t>(std::ranges::count_if(kClassicRows, isChanged));
  std::array<Attribute, kKept + kModernChanges.size()> rows{};
  const auto end = std::ranges::copy_if(kClassicRows, rows.begin(), std::not_fn(isChanged)).out;
  std::ranges::copy(kModernChanges, end);
  std::ranges::sort(rows, {}, &Attribute::number);
  return rows;
}();

constexpr AttributeTable kClassicTable(kClassicRows, 2);
// The last row is the one that minor version 0 does not know.
constexpr AttributeTable kModernTable0(
    std::span<const Attribute>(kModernRows).first(kModernRows.size() - 1), 2);
constexpr AttributeTable kModernTable1(kModernRows, 3);

static_assert(kClassicTable.readable == Words{0xEC1ABFFF, 0x00B0803E});
static_assert(kClassicTable.settable == Words{0x00001010, 0x00410032});
static_assert(kClassicTable.supported(0) == 0xEC1ABFFF && kClassicTable.supported(1) == 0x00F1803E);
static_assert(kModernTable1.readable == Words{0xFCFFBFFF, 0x00B8BC3E, 0x00000800});
static_assert(kModernTable1.settable == Words{0x00000010, 0x00410032});
static_assert(kModernTable0.readable == Words{0xFCFFBFFF, 0x00B8BC3E});

bool has(const Object& object, const Attribute& attribute) {
  return attribute.isThere == nullptr || attribute.isThere(object);
}
void setBit(Words& words, unsigned number) { words[number / 32] |= 1U << number % 32; }

void printSupported(MemoryStream& out, const Object& object) {
  const AttributeTable& table = attributeTable(object.profile, object.minorVersion);
  Words absent{};
  for (const Attribute& attribute : table.rows) {
    if (!has(object, attribute)) setBit(absent, attribute.number);
  }
  out << static_cast<unsigned>(table.words);
  for (std::size_t i = 0; i < table.words; ++i) out << (table.supported(i) & ~absent[i]);
}
void printSettable(MemoryStream& out, const Object& object) {
  constexpr unsigned kSettableWords = 2;
  const AttributeTable& table = attributeTable(object.profile, object.minorVersion);
  out << kSettableWords;
  for (unsigned i = 0; i < kSettableWords; ++i) out << table.settable[i];
}

bool hasBit(const Bitmap& bitmap, unsigned number) {
  return number / 32 < bitmap.size() && (bitmap[number / 32] >> number % 32 & 1U) != 0;
}

// Calls `visit` with the rows of the attributes that can be accessed so and are in the bitmap.
template <class Visit>
void forEach(const AttributeTable& table, const Bitmap& bitmap, unsigned access,
             const Visit& visit) {
  for (const Attribute& attribute : table.rows) {
    if ((attribute.access & access) != 0 && hasBit(bitmap, attribute.number)) visit(attribute);
  }
}

Values decodeAll(MemoryStream& in, const AttributeTable& table, const Bitmap& bitmap,
                 unsigned access) {
  Values values;
  forEach(table, bitmap, access, [&](const Attribute& attribute) { attribute.decode(in, values); });
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

const AttributeTable& attributeTable(const Profile& profile, unsigned minorVersion) {
  if (!profile.isModern) return kClassicTable;
  return minorVersion == 0 ? kModernTable0 : kModernTable1;
}

const std::optional<FileSystemStatistics>& ShownObject::statistics() const {
  if (!told) told = view != nullptr ? view->statistics() : std::nullopt;
  return *told;
}

void printAttributeValue(MemoryStream& out, unsigned attribute, const ShownObject& object) {
  const Attribute* row = attributeTable(object.profile, object.minorVersion).find(attribute);
  if (row != nullptr && row->print != nullptr) row->print(out, object);
}

void printAttributes(MemoryStream& out, const Bitmap& requested, const ShownObject& object) {
  const AttributeTable& table = attributeTable(object.profile, object.minorVersion);
  Words shown{};
  forEach(table, requested, kRead, [&](const Attribute& attribute) {
    if (has(object, attribute)) setBit(shown, attribute.number);
  });
  const auto words = static_cast<unsigned>(std::min(requested.size(), table.words));
  out << words;
  for (unsigned i = 0; i < words; ++i) out << shown[i];
  const unsigned lengthPosition = out.getOutputPosition();
  out << 0U;
  for (const Attribute& attribute : table.rows) {
    if ((shown[attribute.number / 32] >> attribute.number % 32 & 1U) != 0) {
      attribute.print(out, object);
    }
  }
  const unsigned end = out.getOutputPosition();
  out.seekOutput(lengthPosition, SeekOrigin::Begin);
  out << end - lengthPosition - 4;
  out.seekOutput(end, SeekOrigin::Begin);
}

bool areReadable(const Bitmap& bitmap, const AttributeTable& table) {
  return bitmap.size() <= table.words && isWithin(bitmap, table.readable, bitmap.size());
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
  if (const Attribute* row = kClassicTable.find(attribute)) row->decode(in, values);
}

Nfs4SetAttributes readWritableAttributes(MemoryStream& in, const Bitmap& bitmap,
                                         OperationResult& status, const AttributeTable& table) {
  unsigned length = 0;
  in >> length;  // of the values, which tell their own lengths
  if (!isWithin(bitmap, table.settable, std::min(bitmap.size(), table.words))) {
    status = OperationResult::AttributeNotSupported;
  }
  Values values = decodeAll(in, table, bitmap, kSet);
  if (values.unknownOwner && status == OperationResult::OK) status = OperationResult::BadOwner;
  return values;
}

Nfs4SetAttributes readReadableAttributes(MemoryStream& in, const Bitmap& bitmap,
                                         const AttributeTable& table) {
  return decodeAll(in, table, bitmap, kRead);
}

Bitmap setAttributes(const Nfs4SetAttributes& values, MetaData& md, const AttributeTable& table) {
  Words applied{};
  for (const Attribute& attribute : table.rows) {
    if (attribute.apply != nullptr && attribute.apply(values, md)) {
      setBit(applied, attribute.number);
    }
  }
  if (applied[1] != 0) return {applied[0], applied[1]};
  if (applied[0] != 0) return {applied[0]};
  return {};
}

OperationResult compareAttributes(const Nfs4SetAttributes& values, const ShownObject& object) {
  for (const Attribute& attribute : attributeTable(object.profile, object.minorVersion).rows) {
    if (attribute.compare == nullptr) continue;
    const OperationResult result = attribute.compare(values, object);
    if (result != OperationResult::OK) return result;
  }
  return OperationResult::OK;
}

}  // namespace nfslib::nfs4
