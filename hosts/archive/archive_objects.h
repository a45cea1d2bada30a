#pragma once

#include <nfslib/file_system.h>

#include "archive/archive.h"
#include "read_only/refusing.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace nfslib::hosts::archive {

// The objects of an archive's tree: handles that know where they are in its index.

class ArchiveDirectory : public read_only::RefusingDirectory {
 public:
  ArchiveDirectory(std::shared_ptr<Archive> archive, NodeId node)
      : m_archive(std::move(archive)), m_node(node) {}

  std::shared_ptr<DirectoryEnumerator> Enumerate() const override;
  std::shared_ptr<Directory> OpenSubdir(const std::string& name) override;
  std::shared_ptr<File> OpenFile(const std::string& name) override;
  std::shared_ptr<Symlink> OpenSymlink(const std::string& name) override;
  MetaData GetMetaData() const override;
  DirEntry GetEntryByName(const std::string& name) const override;
  std::optional<DirEntry> TryGetEntryByName(const std::string& name) const override;

 private:
  const Node& node() const { return m_archive->index().node(m_node); }
  // The object `name`; throws when there is none, or when it is not of that type.
  NodeId open(const std::string& name, FileType type) const;

  const std::shared_ptr<Archive> m_archive;
  const NodeId m_node;
};

class ArchiveFile : public read_only::RefusingFile {
 public:
  // `name` is for messages.
  ArchiveFile(std::shared_ptr<Archive> archive, NodeId node, std::string name)
      : m_archive(std::move(archive)),
        m_node(node),
        m_name(std::move(name)),
        m_content(m_archive->contentOf(node)) {}

  unsigned long Read(unsigned long offset, void* buffer, unsigned long length) override;
  MetaData GetMetaData() const override { return m_archive->index().metaData(m_node); }

 private:
  // Those of the bytes wanted that lie in the stored parts of the file.
  void readParts(const Node& node, unsigned long offset, char* buffer, unsigned long length);
  // All `length` bytes from byte `offset` of the content on; throws when there are not as many.
  void readAll(std::uint64_t offset, char* buffer, unsigned long length);

  const std::shared_ptr<Archive> m_archive;
  const NodeId m_node;
  const std::string m_name;
  const std::shared_ptr<ByteSource> m_content;  // null when there is none to be read
};

class ArchiveSymlink : public read_only::RefusingSymlink {
 public:
  ArchiveSymlink(std::shared_ptr<Archive> archive, NodeId node)
      : m_archive(std::move(archive)), m_node(node) {}

  std::string GetTarget() override;
  MetaData GetMetaData() const override { return m_archive->index().metaData(m_node); }

 private:
  const std::shared_ptr<Archive> m_archive;
  const NodeId m_node;
};

}  // namespace nfslib::hosts::archive
