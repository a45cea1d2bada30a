#include <nfslib/hosts/memory_file_system.h>

#include "memory/memory_directory.h"
#include "memory/tree.h"

namespace nfslib::hosts {

MemoryFileSystem::MemoryFileSystem(std::uint64_t capacityBytes)
    : m_tree(std::make_shared<memory::Tree>(capacityBytes)),
      m_root(std::make_shared<memory::MemoryDirectory>(m_tree, m_tree->root)) {}

MemoryFileSystem::~MemoryFileSystem() = default;

std::shared_ptr<Directory> MemoryFileSystem::OpenRoot() { return m_root; }

FileSystemStatistics MemoryFileSystem::GetStatistics() const {
  const std::uint64_t total = capacityBytes();
  const std::uint64_t left = total - usedBytes();
  return {.totalBytes = total,
          .freeBytes = left,
          .availableBytes = left,
          .totalFiles = total / kEntryCost,
          .freeFiles = left / kEntryCost,
          .availableFiles = left / kEntryCost};
}

std::uint64_t MemoryFileSystem::capacityBytes() const { return m_tree->space.capacity(); }

std::uint64_t MemoryFileSystem::usedBytes() const { return m_tree->space.used(); }

}  // namespace nfslib::hosts
