#include <nfslib/hosts/posix_file_system.h>

#include "posix/posix_directory.h"
#include "posix/tree.h"

namespace nfslib::hosts {

PosixFileSystem::PosixFileSystem(const std::string& rootDirectory, PathWalk walk)
    : m_tree(std::make_shared<posix::Tree>(rootDirectory, walk)),
      m_root(std::make_shared<posix::PosixDirectory>(m_tree, m_tree->rootPlace())) {}

PosixFileSystem::~PosixFileSystem() = default;

std::shared_ptr<Directory> PosixFileSystem::OpenRoot() { return m_root; }

FileSystemStatistics PosixFileSystem::GetStatistics() const { return m_tree->statistics(); }

}  // namespace nfslib::hosts
