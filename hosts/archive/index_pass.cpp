#include "archive/index_pass.h"

#include <nfslib/exception.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

#include <sys/stat.h>

namespace nfslib::hosts::archive {

namespace {

// What is stored begins at a multiple of this in a tar.
constexpr std::uint64_t kTarBlock = 512;

// 32 bits: what lies outside is shown as the nearest number inside.
std::uint32_t clamped(la_int64_t number) {
  return static_cast<std::uint32_t>(std::clamp<la_int64_t>(number, 0, UINT32_MAX));
}

std::uint64_t wholeBlocks(std::uint64_t size) {
  return (size + kTarBlock - 1) / kTarBlock * kTarBlock;
}

FileType typeOf(archive_entry* entry) {
  switch (archive_entry_filetype(entry)) {
    case AE_IFDIR:
      return FileType::Directory;
    case AE_IFBLK:
      return FileType::BlockDevice;
    case AE_IFCHR:
      return FileType::CharacterDevice;
    case AE_IFLNK:
      return FileType::SymbolicLink;
    case AE_IFSOCK:
      return FileType::Socket;
    case AE_IFIFO:
      return FileType::NamedPipe;
    default:
      return FileType::Regular;
  }
}

// `bytes`, or where libarchive knows the text in another form only, that as UTF-8.
std::string_view textOf(const char* bytes, const char* utf8) {
  if (bytes != nullptr) return bytes;
  return utf8 != nullptr ? utf8 : std::string_view();
}

// The parts that are stored of a sparse file, `where` not yet known; nothing when they are out of
// order.
std::optional<std::vector<Extent>> partsOf(archive_entry* entry, std::uint64_t size) {
  std::vector<Extent> parts;
  std::uint64_t end = 0;
  la_int64_t offset = 0, length = 0;
  archive_entry_sparse_reset(entry);
  while (archive_entry_sparse_next(entry, &offset, &length) == ARCHIVE_OK) {
    if (offset < 0 || length < 0) return std::nullopt;
    const Extent part{static_cast<std::uint64_t>(offset), static_cast<std::uint64_t>(length), 0};
    if (part.offset < end || part.offset > size || part.size > size - part.offset)
      return std::nullopt;
    end = part.offset + part.size;
    if (part.size != 0) parts.push_back(part);
  }
  return parts;
}

}  // namespace

Index IndexPass::run(ArchiveReader::Outcome first) {
  using Outcome = ArchiveReader::Outcome;
  bool wasDamaged = false;
  std::uint64_t position = 0;
  for (Outcome outcome = first; outcome != Outcome::End; outcome = m_reader.next()) {
    if (outcome == Outcome::Broken) {
      m_problems.report("", "It cannot be read any further: " + m_reader.warning() + ".");
      break;
    }
    if (outcome == Outcome::Damaged) {
      if (!wasDamaged)
        m_problems.report("", "A part of it is passed over: " + m_reader.warning() + ".");
      if (wasDamaged && m_reader.position() <= position) break;  // there is no way past it
      position = m_reader.position();
    } else {
      take();
    }
    wasDamaged = outcome == Outcome::Damaged;
  }
  Index index = m_builder.finish();
  m_problems.conclude();
  return index;
}

void IndexPass::take() {
  archive_entry* const entry = m_reader.entry();
  const std::uint64_t number = m_number++;
  const std::string path(textOf(archive_entry_pathname(entry), archive_entry_pathname_utf8(entry)));
  if (path.empty()) {
    m_problems.report("number " + std::to_string(number),
                      "It has no name that can be read. It is left out.");
    return;
  }
  if (!m_reader.warning().empty()) m_problems.report(path, m_reader.warning() + ".");

  Node node = attributes();
  const std::string_view linked =
      textOf(archive_entry_hardlink(entry), archive_entry_hardlink_utf8(entry));
  if (!linked.empty()) {
    // In a cpio the content comes with any of the names, mostly the last.
    const bool hasContent = archive_entry_size_is_set(entry) != 0 && archive_entry_size(entry) > 0;
    const std::string target(linked);
    if (hasContent && node.is(FileType::Regular)) {
      locate(path, node);
      m_builder.addHardLink(path, target, &node);
    } else {
      m_builder.addHardLink(path, target, nullptr);
    }
  } else if (node.is(FileType::SymbolicLink)) {
    m_builder.addSymlink(path, node,
                         textOf(archive_entry_symlink(entry), archive_entry_symlink_utf8(entry)));
  } else if (node.is(FileType::Regular)) {
    takeFile(path, node);
  } else {
    m_builder.add(path, node);
  }
}

void IndexPass::takeFile(const std::string& path, Node& node) {
  locate(path, node);
  if (node.content == Content::Stream && archive_entry_sparse_count(m_reader.entry()) > 0) {
    takeParts(path, node);
  } else {
    m_builder.add(path, node);
  }
}

void IndexPass::takeParts(const std::string& path, Node& node) {
  auto parts = partsOf(m_reader.entry(), node.size);
  if (!parts) {
    m_problems.report(path, "The list of its parts makes no sense. It is left out.");
    return;
  }
  std::uint64_t stored = 0;
  for (Extent& part : *parts) {
    part.where = node.where + stored;
    stored += part.size;
  }
  // Some writers store the holes as well.
  const bool isWhole = m_reader.skip();
  const std::uint64_t room = m_reader.position() - node.where;
  if (!isWhole || room == wholeBlocks(stored)) {
    m_builder.addInParts(path, node, *parts);
  } else if (room == wholeBlocks(node.size)) {
    m_builder.add(path, node);
  } else {
    m_problems.report(path, "It is stored with holes in a way that is not known. It is left out.");
  }
}

Node IndexPass::attributes() const {
  archive_entry* const entry = m_reader.entry();
  Node node;
  node.type = static_cast<std::uint8_t>(typeOf(entry));
  node.mode = archive_entry_perm(entry) & 07777;
  node.uid = clamped(archive_entry_uid(entry));
  node.gid = clamped(archive_entry_gid(entry));
  node.modifyTime =
      archive_entry_mtime_is_set(entry) != 0 ? clamped(archive_entry_mtime(entry)) : m_time;
  node.changeTime = archive_entry_ctime_is_set(entry) != 0 ? clamped(archive_entry_ctime(entry))
                                                           : node.modifyTime;
  node.accessTime = archive_entry_atime_is_set(entry) != 0 ? clamped(archive_entry_atime(entry))
                                                           : node.modifyTime;
  if (node.is(FileType::Directory)) node.content = Content::Children;
  return node;
}

void IndexPass::locate(const std::string& path, Node& node) {
  archive_entry* const entry = m_reader.entry();
  const int format = m_reader.format() & ARCHIVE_FORMAT_BASE_MASK;
  const std::string_view method = m_reader.formatName();
  node.where = m_reader.position();
  if (format == ARCHIVE_FORMAT_TAR || format == ARCHIVE_FORMAT_CPIO ||
      (format == ARCHIVE_FORMAT_ZIP && method.ends_with("(uncompressed)"))) {
    node.content = Content::Stream;
  } else if (format == ARCHIVE_FORMAT_ZIP && method.ends_with("(deflation)")) {
    node.content = Content::Deflated;
  } else {
    node.content = Content::Member;
  }
  const bool isEncrypted = archive_entry_is_encrypted(entry) != 0;
  if (archive_entry_size_is_set(entry) != 0) {
    node.size = static_cast<std::uint64_t>(std::max<la_int64_t>(archive_entry_size(entry), 0));
  } else if (!isEncrypted) {
    node.size = countContent(path);
  }
  if (isEncrypted) node.content = Content::Encrypted;
  if (node.size == 0) node.content = Content::None;
  if (node.content == Content::Member) {
    node.where = m_members.add(m_number - 1, node.size, format == ARCHIVE_FORMAT_7ZIP);
  }
}

std::uint64_t IndexPass::countContent(const std::string& path) {
  std::vector<char> buffer(256 * 1024);
  std::uint64_t size = 0;
  try {
    while (const std::size_t piece = m_reader.read(buffer.data(), buffer.size())) size += piece;
  } catch (const SystemNfsException& e) {
    m_problems.report(path, e.what());
  }
  return size;
}

}  // namespace nfslib::hosts::archive
