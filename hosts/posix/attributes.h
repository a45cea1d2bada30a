#pragma once

#include <nfslib/metadata.h>

#include "posix/tree.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <sys/stat.h>

namespace nfslib::hosts::posix {

// The status of what `fd` has open, or of the entry `name` of the directory `fd`, which is not
// followed when it is a symbolic link. False, and errno, when the system refuses.
bool readStatus(int fd, struct statx& status);
bool readStatus(int directory, const char* name, struct statx& status);

FileType typeOf(const struct statx& status);
MetaData toMetaData(const struct statx& status, std::uint64_t fileId);

// The attributes of what `fd` has open; `shown` is its name in messages.
MetaData readMetaData(int fd, std::uint64_t fileId, const std::string& shown);

// Applies to what `fd` has open those of the settable attributes that differ from the current ones.
// What was applied is taken back when a later part fails, so all of it is done or nothing, as far
// as the system lets it. Works for descriptors that were opened with O_PATH.
//
// The size belongs to regular files alone. `resize` sets it and returns false, and errno, when it
// cannot; it is the last thing that may fail, since nothing brings back what was cut off.
void changeMetaData(Tree& tree, int fd, const MetaData& wanted, const std::string& shown,
                    const std::function<bool(std::uint64_t)>& resize = {});

}  // namespace nfslib::hosts::posix
