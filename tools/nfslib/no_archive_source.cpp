// What stands in for archive_source.cpp where the libraries that read archives are missing.

#include "archive_source.h"

#include <stdexcept>

namespace nfslib::tool {

bool isArchiveFile(const std::string&) { return false; }

std::optional<Source> openArchive(const SourceOptions&) {
  throw std::logic_error("This program was built without archives.");
}

}  // namespace nfslib::tool
