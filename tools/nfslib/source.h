#pragma once

#include <nfslib/file_system.h>

#include <cstdint>
#include <memory>
#include <string>

namespace nfslib::tool {

// What the user asked to have served.
struct Source {
  std::string exportPath;  // "/" and a short name
  std::unique_ptr<FileSystem> tree;
};

// SOURCE as it stands on the command line: "memory", "memory:SIZE" or a directory. Unless it is
// `writable` it refuses every change. Throws std::runtime_error with a sentence for the user,
// std::invalid_argument when it makes no sense.
Source openSource(const std::string& text, bool writable);

// A number of bytes like "64M": K, M, G and T are powers of 1,024. Throws std::invalid_argument.
std::uint64_t parseSize(const std::string& text);

}  // namespace nfslib::tool
