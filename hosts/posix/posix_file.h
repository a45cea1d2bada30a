#pragma once

#include <nfslib/file_system.h>

#include "posix/tree.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace nfslib::hosts::posix {

// A regular file. It is open for as long as this object lives, so removing its last name takes it
// from nobody.
//
// It is opened for reading alone until somebody writes: a file that is open for writing cannot be
// executed on this machine, and one that is being executed cannot be opened for writing.
class PosixFile : public File, public IDescriptorFile {
 public:
  enum class Access { None, Read, ReadWrite };

  // `descriptor` has the file open with `access` (`None`: with O_PATH); `shown` is its name in
  // messages.
  PosixFile(std::shared_ptr<Tree> tree, Descriptor descriptor, Access access, std::uint64_t fileId,
            std::string shown);

  unsigned long Read(unsigned long offset, void* buffer, unsigned long length) override;
  unsigned long Write(unsigned long offset, const void* data, unsigned long length) override;
  MetaData GetMetaData() const override;
  void SetMetaData(const MetaData& md) override;
  int ReadDescriptor() const noexcept override { return m_descriptorFailed ? -1 : int{m_readFd}; }
  void DescriptorFailed() noexcept override { m_descriptorFailed = true; }

  const std::shared_ptr<Tree>& tree() const { return m_tree; }
  // A descriptor of the file, good for as long as this object lives.
  int descriptor() const { return m_opened.get(); }

 private:
  // A descriptor that may be written through; opens one when there is none yet.
  int writable();
  Descriptor openForWriting() const;
  // Takes back the growth that a write brought about before it failed at `offset`, where the file
  // ended at `size` before.
  void cutBack(int fd, std::uint64_t size, std::uint64_t offset) const;

  const std::shared_ptr<Tree> m_tree;
  const Descriptor m_opened;
  const std::uint64_t m_fileId;
  const std::string m_shown;

  std::mutex m_writeLock;           // guards opening for writing; below Tree::lock
  Descriptor m_openedForWriting;    // under m_writeLock; set once
  std::atomic<int> m_readFd = -1;   // -1: the file may not be read
  std::atomic<int> m_writeFd = -1;  // -1: not open for writing so far
  std::atomic<bool> m_descriptorFailed = false;
};

}  // namespace nfslib::hosts::posix
