#include "archive/archive_objects.h"

#include <nfslib/exception.h>

#include "entry_name.h"

#include <algorithm>
#include <span>

namespace nfslib::hosts::archive {

namespace {

// A pass over the entries of a directory.
class ArchiveEnumerator : public DirectoryEnumerator {
 public:
  ArchiveEnumerator(std::shared_ptr<Archive> archive, const Node& directory)
      : m_archive(std::move(archive)), m_left(m_archive->index().children(directory)) {
    show();
  }

  const DirEntry& Current() const override { return m_entry; }
  bool IsValid() const override { return !m_left.empty(); }
  void MoveNext() override {
    m_left = m_left.subspan(1);
    show();
  }

 private:
  void show() {
    if (m_left.empty()) return;
    m_entry.name = m_archive->index().name(m_left.front());
    m_entry.metaData = m_archive->index().metaData(m_left.front().node);
  }

  const std::shared_ptr<Archive> m_archive;
  std::span<const Entry> m_left;
  DirEntry m_entry;
};

[[noreturn]] void refuseType(const std::string& name, const Node& found, FileType wanted) {
  const bool isDirectory = wanted == FileType::Directory;
  const int error = isDirectory                                                    ? ENOTDIR
                    : wanted == FileType::Regular && found.is(FileType::Directory) ? EISDIR
                                                                                   : EINVAL;
  throw SystemNfsException(error, "[" + name + "] is not " +
                                      (isDirectory                        ? "a directory."
                                       : wanted == FileType::SymbolicLink ? "a symbolic link."
                                                                          : "a file."));
}

}  // namespace

std::shared_ptr<DirectoryEnumerator> ArchiveDirectory::Enumerate() const {
  return std::make_shared<ArchiveEnumerator>(m_archive, node());
}

NodeId ArchiveDirectory::open(const std::string& name, FileType type) const {
  requireEntryName(name);
  const Index& index = m_archive->index();
  const Entry* const entry = index.find(node(), name);
  if (entry == nullptr) throw SystemNfsException(ENOENT, "There is no entry [" + name + "].");
  if (!index.node(entry->node).is(type)) refuseType(name, index.node(entry->node), type);
  return entry->node;
}

std::shared_ptr<Directory> ArchiveDirectory::OpenSubdir(const std::string& name) {
  return std::make_shared<ArchiveDirectory>(m_archive, open(name, FileType::Directory));
}

std::shared_ptr<File> ArchiveDirectory::OpenFile(const std::string& name) {
  return std::make_shared<ArchiveFile>(m_archive, open(name, FileType::Regular), name);
}

std::shared_ptr<Symlink> ArchiveDirectory::OpenSymlink(const std::string& name) {
  return std::make_shared<ArchiveSymlink>(m_archive, open(name, FileType::SymbolicLink));
}

MetaData ArchiveDirectory::GetMetaData() const { return m_archive->index().metaData(m_node); }

DirEntry ArchiveDirectory::GetEntryByName(const std::string& name) const {
  if (auto entry = TryGetEntryByName(name)) return std::move(*entry);
  throw SystemNfsException(ENOENT, "There is no entry [" + name + "].");
}

std::optional<DirEntry> ArchiveDirectory::TryGetEntryByName(const std::string& name) const {
  const Entry* const entry = m_archive->index().find(node(), name);
  if (entry == nullptr) return std::nullopt;
  return DirEntry{name, m_archive->index().metaData(entry->node)};
}

unsigned long ArchiveFile::Read(unsigned long offset, void* buffer, unsigned long length) {
  const Node& node = m_archive->index().node(m_node);
  if (offset >= node.size) return 0;
  const unsigned long wanted = std::min<std::uint64_t>(length, node.size - offset);
  auto* const bytes = static_cast<char*>(buffer);
  switch (node.content) {
    case Content::Extents:
      readParts(node, offset, bytes, wanted);
      break;
    case Content::Stream:
    case Content::Deflated:
    case Content::Member:
      readAll(m_archive->offsetOf(node) + offset, bytes, wanted);
      break;
    case Content::Encrypted:
      throw SystemNfsException(EACCES, "[" + m_name +
                                           "] is encrypted in the archive and cannot be read; "
                                           "unpack it with its password.");
    case Content::None:
    case Content::Text:
    case Content::Children:
    case Content::Unresolved:
      break;
  }
  return wanted;
}

void ArchiveFile::readParts(const Node& node, unsigned long offset, char* buffer,
                            unsigned long length) {
  const auto parts = m_archive->index().extents(node);
  auto part = std::partition_point(parts.begin(), parts.end(), [&](const Extent& extent) {
    return extent.offset + extent.size <= offset;
  });
  for (; part != parts.end() && part->offset < offset + length; ++part) {
    const std::uint64_t begin = std::max<std::uint64_t>(part->offset, offset);
    const std::uint64_t end = std::min<std::uint64_t>(part->offset + part->size, offset + length);
    readAll(part->where + (begin - part->offset), buffer + (begin - offset), end - begin);
  }
}

void ArchiveFile::readAll(std::uint64_t offset, char* buffer, unsigned long length) {
  if (m_content->readAt(offset, buffer, length) == length) return;
  throw SystemNfsException(EIO, "The archive ends within [" + m_name + "].");
}

std::string ArchiveSymlink::GetTarget() {
  const Index& index = m_archive->index();
  return std::string(index.text(index.node(m_node)));
}

}  // namespace nfslib::hosts::archive
