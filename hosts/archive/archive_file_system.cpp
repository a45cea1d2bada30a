#include <nfslib/hosts/archive_file_system.h>

#include "archive/archive.h"
#include "archive/archive_objects.h"

namespace nfslib::hosts {

ArchiveFileSystem::ArchiveFileSystem(const std::string& file, const ArchiveOptions& options)
    : m_archive(std::make_shared<archive::Archive>(file, options)),
      m_root(std::make_shared<archive::ArchiveDirectory>(m_archive, archive::kRoot)) {}

ArchiveFileSystem::~ArchiveFileSystem() = default;

std::shared_ptr<Directory> ArchiveFileSystem::OpenRoot() { return m_root; }

FileSystemStatistics ArchiveFileSystem::GetStatistics() const {
  const archive::Index& index = m_archive->index();
  return {.totalBytes = index.bytes(), .totalFiles = index.objects()};
}

std::uint64_t ArchiveFileSystem::problems() const { return m_archive->problems(); }

std::size_t ArchiveFileSystem::indexBytes() const { return m_archive->index().memory(); }

}  // namespace nfslib::hosts
