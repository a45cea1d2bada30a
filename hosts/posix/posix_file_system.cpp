#include <nfslib/hosts/posix_file_system.h>

#include "posix/posix_directory.h"
#include "posix/tree.h"
#include "posix/watcher.h"

#include <utility>

namespace nfslib::hosts {

PosixFileSystem::PosixFileSystem(const std::string& rootDirectory, PathWalk walk)
    : m_tree(std::make_shared<posix::Tree>(rootDirectory, walk)),
      m_root(std::make_shared<posix::PosixDirectory>(m_tree, m_tree->rootPlace())) {}

PosixFileSystem::~PosixFileSystem() = default;

std::shared_ptr<Directory> PosixFileSystem::OpenRoot() { return m_root; }

void PosixFileSystem::watchChanges(InvalidationListener listener, std::size_t mostDirectories) {
  m_watcher = std::make_unique<posix::Watcher>(m_tree, std::move(listener), mostDirectories);
}

bool PosixFileSystem::Watch(const NfsPath& directory) {
  return m_watcher && m_watcher->watch(directory);
}

FileSystemStatistics PosixFileSystem::GetStatistics() const { return m_tree->statistics(); }

}  // namespace nfslib::hosts
