#include <nfslib/log.h>

#include "server/host_commands.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace nfslib::system {

namespace {

bool isPlain(char c) {
  constexpr std::string_view kSafe =
      "/._-+,:@%=0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  return kSafe.find(c) != kSafe.npos;
}

// Runs the line as system(3) would, but leaves the process's signals alone, and keeps what the
// command says from the standard outputs, which are the host's.
CommandResult runByShell(const std::string& line) {
  std::FILE* const output = popen(("exec </dev/null 2>&1; " + line).c_str(), "re");
  if (output == nullptr)
    throw std::runtime_error("No command can be run: " + utility::getErrnoDescription(errno));
  CommandResult result;
  std::array<char, 512> part{};
  while (std::fgets(part.data(), part.size(), output) != nullptr) result.output += part.data();
  result.status = pclose(output);
  while (!result.output.empty() && result.output.back() == '\n') result.output.pop_back();
  return result;
}

}  // namespace

CommandRunner runCommandLine = runByShell;

std::string shellWord(std::string_view path) {
  if (path.empty()) throw std::runtime_error("An empty path cannot be given to a command.");
  if (path.find('\0') != path.npos) {
    throw std::runtime_error("A path with a NUL byte cannot be given to a command.");
  }
  std::string word;
  // A file called "-f" is no option.
  if (path.front() == '-') word = "./";
  word += path;
  if (std::all_of(word.begin(), word.end(), isPlain)) return word;
  std::string quoted = "'";
  for (const char c : word) c == '\'' ? quoted += "'\\''" : quoted += c;
  return quoted + '\'';
}

}  // namespace nfslib::system
