#include "fs/nfs_file_system.h"
#include "nfs4/attribute_table.h"
#include "nfs4/owner_names.h"
#include "nfs4/pseudo_root.h"

#include <functional>

// Every attribute, a row each.

namespace nfslib::nfs4 {

namespace {

constexpr unsigned kPersistentHandles = 0;
constexpr unsigned kAllAceTypes = 15;
constexpr std::uint64_t kMaxFileSize = 0x1000'0000'0000;
constexpr unsigned kMaxName = 256;
constexpr unsigned kPermissions = 07777;
constexpr std::uint64_t kMaxTransfer = 8U << 20U;

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

}  // namespace

const AttributeTable& attributeTable(const Profile& profile, unsigned minorVersion) {
  if (!profile.isModern) return kClassicTable;
  return minorVersion == 0 ? kModernTable0 : kModernTable1;
}

}  // namespace nfslib::nfs4
