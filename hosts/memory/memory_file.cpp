#include "memory/memory_file.h"

#include <cstddef>

namespace nfslib::hosts::memory {

unsigned long MemoryFile::Read(unsigned long offset, void* buffer, unsigned long length) {
  return m_node->read(offset, static_cast<std::byte*>(buffer), length);
}

unsigned long MemoryFile::Write(unsigned long offset, const void* data, unsigned long length) {
  m_node->write(offset, static_cast<const std::byte*>(data), length);
  return length;
}

MetaData MemoryFile::GetMetaData() const { return m_node->metaData(); }

void MemoryFile::SetMetaData(const MetaData& md) { m_node->setMetaData(md); }

}  // namespace nfslib::hosts::memory
