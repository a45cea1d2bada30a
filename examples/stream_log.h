#pragma once

#include <nfslib/log.h>

#include <iostream>
#include <mutex>

// A sink that puts warnings and errors on standard error and drops the rest.
class StreamLog : public nfslib::INfsLibLogSection {
 public:
  StreamLog() {
    // Lines of these levels are not even put together.
    discard(nfslib::LogLevel::dbg);
    discard(nfslib::LogLevel::info);
  }

  void warn(const std::string& message) override { write("warning: ", message); }
  void warn(std::exception& e) override { warn(e.what()); }
  void warn(const std::string& message, std::exception& e) override {
    warn(message + ": " + e.what());
  }
  void err(const std::string& message) override { write("error: ", message); }
  void err(std::exception& e) override { err(e.what()); }
  void err(const std::string& message, std::exception& e) override {
    err(message + ": " + e.what());
  }
  // What a person has to know who started something that lasts, a backup's mount for example.
  void addSessionWarn(const std::string& message) override { warn(message); }
  void addSessionErr(const std::string& message) override { err(message); }

  void addSessionInfo(const std::string&) override {}
  void info(const std::string&) override {}
  void info(int, const std::string&) override {}
  void dbg(const std::string&) override {}
  void dbg(int, const std::string&) override {}

 private:
  // Called by every thread of the library, so lines must not mix.
  void write(const char* level, const std::string& message) {
    const std::lock_guard lock(m_lock);
    std::cerr << level << message << '\n';
  }

  std::mutex m_lock;  // one line at a time; nothing else is locked under it
};
