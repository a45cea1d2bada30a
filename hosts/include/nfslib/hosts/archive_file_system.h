#pragma once

#include <nfslib/file_system.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace nfslib::hosts {

namespace archive {
class Archive;
}

/// How far the pass over an archive is.
struct ArchiveProgress {
  std::uint64_t entries = 0;    ///< indexed so far
  std::uint64_t bytesRead = 0;  ///< of the file; passed over counts as read
  std::uint64_t fileBytes = 0;  ///< its size
};

/// How an archive is opened.
struct ArchiveOptions {
  /// The most memory, in bytes, that decoded parts and decoders take; what the index takes comes on
  /// top.
  std::size_t cacheBytes = std::size_t{256} << 20;
  /// Told several times for each MiB that is read, and once at the end, on the thread that opens
  /// the archive. What it throws ends the opening and comes out of it. May be empty.
  std::function<void(const ArchiveProgress&)> progress{};
};

/// An archive file as a tree that cannot be changed: tar and cpio, plain or compressed by gzip,
/// bzip2, xz, zstd, lz4, lzip, lzma or compress; zip, 7z and ISO 9660. It is recognised by its
/// content.
///
/// One pass over the file, or over its directory where the format has one, makes an index in
/// memory, of some 64 bytes an entry and its name. From then on names and attributes come from
/// there, and content from the file: where it is stored as it is, it is read in place, else it is
/// decoded through a cache of a set size. The file has to stay as it is while it is served.
///
/// Of several entries of one name the last counts. Directories that the archive does not mention
/// are made up. Paths are taken relative to the root, ".." never leads out of it. Hard links show
/// the object that their target was when they came, or becomes later. Names are the bytes that the
/// archive has; in zip, 7z and ISO 9660 files those that are marked as Unicode are UTF-8. What
/// cannot be served, such as names of more than 255 bytes, is left out and told to the log, and so
/// is damage; what can be read of a damaged archive is served. Encrypted files are listed, and
/// cannot be read. Devices, pipes and sockets are listed and cannot be opened.
///
/// Any number of threads may use the tree. Every change is refused with EROFS.
class ArchiveFileSystem : public FileSystem, public IStatistics {
 public:
  /// Opens the archive `file` and goes through it. Throws SystemNfsException when it cannot be
  /// opened, is no archive, or nothing in it can be read.
  explicit ArchiveFileSystem(const std::string& file, const ArchiveOptions& options = {});
  ~ArchiveFileSystem() override;

  std::shared_ptr<Directory> OpenRoot() override;
  /// The bytes of all files and the number of objects; nothing is free.
  FileSystemStatistics GetStatistics() const override;

  /// How many problems the archive has: damage, and entries that were left out. The log has them
  /// one by one, up to a hundred.
  std::uint64_t problems() const;
  /// What the index takes, in bytes.
  std::size_t indexBytes() const;

 private:
  std::shared_ptr<archive::Archive> m_archive;
  std::shared_ptr<Directory> m_root;
};

}  // namespace nfslib::hosts
