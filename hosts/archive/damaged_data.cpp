#include "archive/damaged_data.h"

#include <cerrno>

namespace nfslib::hosts::archive {

DamagedData::DamagedData(const std::string& what) : SystemNfsException(EIO, what) {}

DamagedData::~DamagedData() = default;

}  // namespace nfslib::hosts::archive
