#include "memory/memory_symlink.h"

namespace nfslib::hosts::memory {

std::string MemorySymlink::GetTarget() { return m_node->target(); }

MetaData MemorySymlink::GetMetaData() const { return m_node->metaData(); }

void MemorySymlink::SetMetaData(const MetaData& md) { m_node->setMetaData(md); }

}  // namespace nfslib::hosts::memory
