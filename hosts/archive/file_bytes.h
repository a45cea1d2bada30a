#pragma once

#include "archive/byte_source.h"

#include <string>

namespace nfslib::hosts::archive {

// A regular file of this machine, open for reading as long as this object lives.
class FileBytes : public ByteSource {
 public:
  // Throws SystemNfsException when the file cannot be opened, or is something else than a file.
  explicit FileBytes(const std::string& path);
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;
  ~FileBytes() override;

  std::size_t readAt(std::uint64_t offset, void* buffer, std::size_t size) override;

  // In bytes, when it was opened.
  std::uint64_t size() const { return m_size; }
  // Stays this object's.
  int descriptor() const { return m_descriptor; }
  // Its path the way messages show it, in brackets.
  const std::string& shown() const { return m_shown; }

 private:
  std::string m_shown;
  int m_descriptor;
  std::uint64_t m_size = 0;
};

}  // namespace nfslib::hosts::archive
