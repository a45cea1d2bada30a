#pragma once

#include <nfslib/exception.h>

#include <string>

namespace nfslib::hosts::archive {

// What a decoder throws where the bytes that are stored cannot be decoded: EIO, like a disk that
// fails, but reading them again will not help, so it may be remembered.
class DamagedData : public SystemNfsException {
 public:
  explicit DamagedData(const std::string& what);
  DamagedData(const DamagedData&) = default;
  DamagedData& operator=(const DamagedData&) = default;
  ~DamagedData() override;
};

}  // namespace nfslib::hosts::archive
