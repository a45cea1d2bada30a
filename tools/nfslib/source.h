#pragma once

#include <nfslib/file_system.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace nfslib::tool {

// What the user asked to have served.
struct Source {
  std::string exportPath;  // "/" and a short name
  std::unique_ptr<FileSystem> tree;
};

struct SourceOptions {
  std::string text;                 // as it stands on the command line
  bool writable = false;            // else it refuses every change
  std::uint64_t archiveCache = 0;   // bytes of memory for what an archive decodes
  std::function<bool()> isStopped;  // asked meanwhile, where opening takes a while
};

// "memory", "memory:SIZE", a directory or an archive file. Tells on standard error how far it is
// with an archive, when that is a terminal, and what is wrong with it. Nothing when it was stopped.
// Throws std::runtime_error with a sentence for the user, std::invalid_argument when it makes no
// sense.
std::optional<Source> openSource(const SourceOptions& options);

// A number of bytes like "64M": K, M, G and T are powers of 1,024. Throws std::invalid_argument.
std::uint64_t parseSize(const std::string& text);

}  // namespace nfslib::tool
