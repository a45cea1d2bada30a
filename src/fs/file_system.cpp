#include <nfslib/file_system.h>

namespace nfslib {

// Defined here so that each class has one home for its type information.
DirectoryEnumerator::~DirectoryEnumerator() = default;
File::~File() = default;
IDescriptorFile::~IDescriptorFile() = default;
Symlink::~Symlink() = default;
Directory::~Directory() = default;
FileSystem::~FileSystem() = default;
IStatistics::~IStatistics() = default;
IWatchable::~IWatchable() = default;

}  // namespace nfslib
