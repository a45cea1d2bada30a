#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include <gtest/gtest.h>
#include <unistd.h>

namespace nfslib::testing {

// An empty directory, gone with its content at the end.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::string path = ::testing::TempDir() + "nfslib_XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("no scratch directory");
    m_path = path;
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }

  const std::filesystem::path& path() const { return m_path; }

 private:
  std::filesystem::path m_path;
};

}  // namespace nfslib::testing
