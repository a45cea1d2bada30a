#include "spdlog_sink.h"

#include <stdexcept>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

namespace nfslib::tool {

namespace {

std::shared_ptr<spdlog::logger> makeLogger(const std::string& file) {
  try {
    if (file.empty()) return spdlog::stderr_color_mt("nfslib");
    return spdlog::basic_logger_mt("nfslib", file);
  } catch (const spdlog::spdlog_ex&) {
    throw std::runtime_error("Cannot write the log file '" + file +
                             "'; name a file in a directory that you may write to.");
  }
}

class SpdlogSink : public INfsLibLogSection {
 public:
  SpdlogSink(const std::string& level, const std::string& file) : m_logger(makeLogger(file)) {
    const auto threshold = spdlog::level::from_str(level);
    m_logger->set_level(threshold);
    m_logger->flush_on(spdlog::level::warn);
    if (threshold > spdlog::level::debug) discard(LogLevel::dbg);
    if (threshold > spdlog::level::info) discard(LogLevel::info);
    if (threshold > spdlog::level::warn) discard(LogLevel::warn);
  }
  ~SpdlogSink() override { spdlog::drop(m_logger->name()); }
  SpdlogSink(const SpdlogSink&) = delete;
  SpdlogSink& operator=(const SpdlogSink&) = delete;

  void info(const std::string& text) override { m_logger->info(text); }
  void info(int number, const std::string& text) override { m_logger->info("{} {}", number, text); }
  void addSessionInfo(const std::string& text) override { m_logger->info(text); }
  void dbg(const std::string& text) override { m_logger->debug(text); }
  void dbg(int number, const std::string& text) override { m_logger->debug("{} {}", number, text); }
  void warn(const std::string& text) override { m_logger->warn(text); }
  void warn(std::exception& e) override { m_logger->warn(e.what()); }
  void warn(const std::string& text, std::exception& e) override {
    m_logger->warn("{} {}", text, e.what());
  }
  void addSessionWarn(const std::string& text) override { m_logger->warn(text); }
  void err(const std::string& text) override { m_logger->error(text); }
  void err(const std::string& text, std::exception& e) override {
    m_logger->error("{} {}", text, e.what());
  }
  void err(std::exception& e) override { m_logger->error(e.what()); }
  void addSessionErr(const std::string& text) override { m_logger->error(text); }

 private:
  std::shared_ptr<spdlog::logger> m_logger;
};

}  // namespace

std::unique_ptr<INfsLibLogSection> makeLogSink(const std::string& level, const std::string& file) {
  return std::make_unique<SpdlogSink>(level, file);
}

}  // namespace nfslib::tool
