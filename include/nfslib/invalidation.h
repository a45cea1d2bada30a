#pragma once

#include <nfslib/nfs_path.h>

#include <cstdint>
#include <functional>
#include <optional>

namespace nfslib {

/// What happened to a tree without the library: see `NfsServer::invalidate`. A plain value.
struct Invalidation {
  /// How far the news reach.
  enum class Scope : std::uint8_t {
    Object,  ///< the object at `path` alone
    Tree,    ///< it, and everything below
  };

  /// Where in the host's tree something is not as it was: other content, other attributes, other
  /// entries, another object or none. With `movedTo`, the place that an object was moved away from.
  NfsPath path;
  Scope scope = Scope::Object;  ///< whether what is below `path` is meant too
  /// Where the object is now, in place of what was there. Handles of the object, and with
  /// `Scope::Tree` of what is below it, lead there from now on.
  std::optional<NfsPath> movedTo{};
  /// The id of the object that was moved (`MetaData::fileId`): by now others may have the names.
  std::uint64_t fileId = 0;
};

/// Takes what a host has to tell of its tree.
using InvalidationListener = std::function<void(const Invalidation&)>;

}  // namespace nfslib
