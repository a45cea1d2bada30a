#pragma once

#include "source.h"

#include <optional>
#include <string>

namespace nfslib::tool {

// Whether `path` is to be opened as an archive: it is a file.
bool isArchiveFile(const std::string& path);

// The file `options.text`, an archive, as `openSource` opens it.
std::optional<Source> openArchive(const SourceOptions& options);

}  // namespace nfslib::tool
