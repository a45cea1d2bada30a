#pragma once

#include "server/host_commands.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nfslib::testing {

// Keeps the command lines of the library instead of running them, while it lives. One at a time.
class RecordedCommands {
 public:
  RecordedCommands() : m_before(std::exchange(system::runCommandLine, &record)) { state() = {}; }
  ~RecordedCommands() { system::runCommandLine = m_before; }
  RecordedCommands(const RecordedCommands&) = delete;
  RecordedCommands& operator=(const RecordedCommands&) = delete;

  // Lines with `part` in them exit with `code` and say `output`.
  static void fail(std::string_view part, int code, const std::string& output = "") {
    state().failures.push_back({std::string(part), {code << 8, output}});
  }
  // The lines since the last call.
  static std::vector<std::string> takeLines() { return std::exchange(state().lines, {}); }

 private:
  struct State {
    std::vector<std::string> lines;
    std::vector<std::pair<std::string, system::CommandResult>> failures;
  };
  static State& state() {
    static State instance;
    return instance;
  }
  static system::CommandResult record(const std::string& line) {
    state().lines.push_back(line);
    for (const auto& [part, result] : state().failures) {
      if (line.find(part) != std::string::npos) return result;
    }
    return {};
  }

  system::CommandRunner m_before;
};

}  // namespace nfslib::testing
