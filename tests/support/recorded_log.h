#pragma once

#include <nfslib/log.h>

#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace nfslib::testing {

// The library's sink while it lives: keeps every line as "level text", with ": what" behind it when
// an exception came along.
class RecordedLog {
 public:
  explicit RecordedLog(std::initializer_list<LogLevel> discarded = {})
      : m_kept(std::make_shared<Kept>()) {
    CNfsLibLogger::getInstance().setImpl(std::make_unique<Sink>(m_kept, discarded));
  }
  ~RecordedLog() { CNfsLibLogger::getInstance().resetImpl(); }
  RecordedLog(const RecordedLog&) = delete;
  RecordedLog& operator=(const RecordedLog&) = delete;

  // One more sink that keeps its lines here, for code that installs its own.
  std::unique_ptr<INfsLibLogSection> sink() const {
    return std::make_unique<Sink>(m_kept, std::initializer_list<LogLevel>{});
  }
  // The lines since the last call.
  std::vector<std::string> takeLines() {
    const std::lock_guard lock(m_kept->lock);
    return std::exchange(m_kept->lines, {});
  }

 private:
  struct Kept {
    std::mutex lock;  // guards lines
    std::vector<std::string> lines;
  };

  class Sink : public INfsLibLogSection {
   public:
    Sink(std::shared_ptr<Kept> kept, std::initializer_list<LogLevel> discarded)
        : m_kept(std::move(kept)) {
      for (const LogLevel level : discarded) discard(level);
    }
    void info(const std::string& text) override { keep("info " + text); }
    void info(int number, const std::string& text) override { keep("info", number, text); }
    void addSessionInfo(const std::string& text) override { keep("session info " + text); }
    void dbg(const std::string& text) override { keep("dbg " + text); }
    void dbg(int number, const std::string& text) override { keep("dbg", number, text); }
    void warn(const std::string& text) override { keep("warn " + text); }
    void warn(std::exception& e) override { warn("", e); }
    void warn(const std::string& text, std::exception& e) override { warn(text + ": " + e.what()); }
    void addSessionWarn(const std::string& text) override { keep("session warn " + text); }
    void err(const std::string& text) override { keep("err " + text); }
    void err(const std::string& text, std::exception& e) override { err(text + ": " + e.what()); }
    void err(std::exception& e) override { err("", e); }
    void addSessionErr(const std::string& text) override { keep("session err " + text); }

   private:
    void keep(const char* level, int number, const std::string& text) {
      keep(std::string(level) + " " + std::to_string(number) + " " + text);
    }
    void keep(std::string line) {
      const std::lock_guard lock(m_kept->lock);
      m_kept->lines.push_back(std::move(line));
    }

    std::shared_ptr<Kept> m_kept;
  };

  std::shared_ptr<Kept> m_kept;
};

}  // namespace nfslib::testing
