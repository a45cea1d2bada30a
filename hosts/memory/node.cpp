#include "memory/node.h"

#include <nfslib/hosts/memory_file_system.h>

#include <chrono>
#include <mutex>
#include <shared_mutex>

#include <unistd.h>

namespace nfslib::hosts::memory {

namespace {

std::uint32_t secondsNow() {
  using namespace std::chrono;
  return static_cast<std::uint32_t>(
      duration_cast<seconds>(system_clock::now().time_since_epoch()).count());
}

}  // namespace

Node::Node(FileType type, std::uint64_t fileId, std::uint16_t mode) : m_type(type) {
  m_md.type = static_cast<std::uint32_t>(type);
  m_md.fileId = fileId;
  m_md.mode = mode;
  m_md.uid = ::geteuid();
  m_md.gid = ::getegid();
  m_md.accessTime = m_md.changeTime = m_md.modifyTime = secondsNow();
}

Node::~Node() = default;

MetaData Node::metaData() const {
  const std::shared_lock lock(m_lock);
  return m_md;
}

void Node::setMetaData(const MetaData& wanted) {
  const std::unique_lock lock(m_lock);
  const MetaData before = m_md;
  if (wanted.size != before.size) resize(wanted.size);
  m_md.mode = static_cast<std::uint16_t>(wanted.mode & 07777);
  m_md.uid = wanted.uid;
  m_md.gid = wanted.gid;
  m_md.accessTime = wanted.accessTime;
  // A new size is a change of the content now, unless the caller says when.
  if (wanted.modifyTime != before.modifyTime) m_md.modifyTime = wanted.modifyTime;
  if (m_md != before) m_md.changeTime = secondsNow();
}

void Node::addLinks(int names) {
  const std::unique_lock lock(m_lock);
  m_md.linkCount += static_cast<std::uint32_t>(names);
  m_md.changeTime = secondsNow();
}

void Node::touch(std::uint64_t size) {
  m_md.size = size;
  m_md.changeTime = m_md.modifyTime = secondsNow();
}

FileNode::FileNode(std::uint64_t fileId, Space& space)
    : Node(FileType::Regular, fileId, 0644), m_bytes(space) {}

std::uint64_t FileNode::read(std::uint64_t offset, std::byte* out, std::uint64_t length) const {
  const std::shared_lock lock(m_lock);
  return m_bytes.read(offset, out, length);
}

void FileNode::write(std::uint64_t offset, const std::byte* data, std::uint64_t length) {
  const std::unique_lock lock(m_lock);
  m_bytes.write(offset, data, length);
  touch(m_bytes.size());
}

void FileNode::resize(std::uint64_t size) {
  m_bytes.resize(size);
  touch(size);
}

SymlinkNode::SymlinkNode(std::uint64_t fileId, Space& space, const std::string& target)
    : Node(FileType::SymbolicLink, fileId, 0777), m_space(space), m_target(target) {
  m_space.take(m_target.size());
  touch(m_target.size());
}

SymlinkNode::~SymlinkNode() { m_space.giveBack(m_target.size()); }

DirectoryNode::DirectoryNode(std::uint64_t fileId) : Node(FileType::Directory, fileId, 0755) {}

void DirectoryNode::entriesChanged() {
  const std::unique_lock lock(m_lock);
  touch(entries.size() * MemoryFileSystem::kEntryCost);
}

}  // namespace nfslib::hosts::memory
