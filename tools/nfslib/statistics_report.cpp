#include "statistics_report.h"

#include <nfslib/nfs_server.h>

#include "prometheus_text.h"
#include "serve_command.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nfslib::tool {

namespace {

constexpr std::chrono::seconds kInterval{5};  // between two versions of the file

[[noreturn]] void refuse(const std::string& file, const std::string& why) {
  throw std::runtime_error("Cannot write the statistics file '" + file + "': " + why +
                           "; name a file in a directory that you may write to.");
}

bool writeWhole(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// Whoever reads the file sees the text before or this one, never a part. The new one comes under
// another name beside it first.
void replaceFile(const std::string& file, const std::string& text) {
  constexpr mode_t kForAllToRead = 0644;
  std::error_code error;
  const auto status = std::filesystem::status(file, error);
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
    refuse(file, "It is not a regular file");  // a device would be lost
  }
  std::string fresh = file + ".XXXXXX";
  const int descriptor = mkostemp(fresh.data(), O_CLOEXEC);
  if (descriptor < 0) refuse(file, std::strerror(errno));
  const bool isWritten = writeWhole(descriptor, text) && fchmod(descriptor, kForAllToRead) == 0;
  const int failure = errno;
  close(descriptor);
  if (isWritten && std::rename(fresh.c_str(), file.c_str()) == 0) return;
  const int cause = isWritten ? errno : failure;
  unlink(fresh.c_str());
  refuse(file, std::strerror(cause));
}

std::string percent(const NfsServerStatistics::Cache& cache) {
  const std::uint64_t all = cache.hits + cache.misses;
  if (all == 0) return "none";
  return std::to_string(cache.hits * 100 / all).append(" % of ").append(std::to_string(all));
}

double microseconds(std::chrono::nanoseconds time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

std::string readable(const NfsServerStatistics& all) {
  std::uint64_t calls = 0, errors = 0;
  for (const auto& procedure : all.procedures) {
    if (procedure.isOperation) continue;  // they are in COMPOUND
    calls += procedure.calls;
    errors += procedure.errors;
  }
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << std::fixed << std::setprecision(1);
  out << "nfslib statistics: " << calls << " calls, " << errors << " errors, " << all.refusedCalls
      << " refused, " << all.invalidCalls << " invalid; connections: " << all.openConnections
      << " open, " << all.acceptedConnections << " in all\n"
      << "  bytes: " << all.bytesRead << " read, " << all.bytesWritten << " written, "
      << all.bytesReceived << " received, " << all.bytesSent << " sent; cache hits: attributes "
      << percent(all.attributes) << ", directories " << percent(all.directories) << ", files "
      << percent(all.files) << ", listings " << percent(all.listings) << ", replies "
      << percent(all.replies) << '\n';
  for (const auto& procedure : all.procedures) {
    const NfsServiceTimes& times = procedure.serviceTimes;
    out << (procedure.isOperation ? "    " : "  ") << programName(procedure) << procedure.version
        << ' ' << procedure.name << ": " << procedure.calls << " calls, " << procedure.errors
        << " errors, p50 " << microseconds(times.quantile(0.5)) << " us, p99 "
        << microseconds(times.quantile(0.99)) << " us\n";
  }
  return out.str();
}

// In one piece, since several threads write such lines.
void printConnection(const NfsConnection& connection) {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << "nfslib: connection from " << dotted(connection.address) << ':' << connection.port;
  if (connection.isOpen) {
    out << " opened\n";
  } else {
    out << " closed after " << std::fixed << std::setprecision(3)
        << std::chrono::duration<double>(connection.duration).count() << " s: " << connection.calls
        << " calls, " << connection.bytesReceived << " bytes received, " << connection.bytesSent
        << " bytes sent\n";
  }
  std::cerr << out.str();
}

}  // namespace

StatisticsReport::StatisticsReport(ReportOptions options) : m_options(std::move(options)) {
  NfsServer& server = NfsServer::instance();
  if (!m_options.statisticsFile.empty()) {
    replaceFile(m_options.statisticsFile, prometheusText(server.getStatistics()));
  }
  if (m_options.isVerbose) server.setConnectionObserver(printConnection);
}

StatisticsReport::~StatisticsReport() { NfsServer::instance().setConnectionObserver({}); }

void StatisticsReport::end() {
  if (m_options.isVerbose) {
    print();
  } else {
    writeFile();
  }
}

StopSignals::Meanwhile StatisticsReport::meanwhile() {
  std::function<void()> keepFile;  // nobody is woken up for nothing
  if (!m_options.statisticsFile.empty()) keepFile = [this] { writeFile(); };
  return {.onUserSignal = [this] { print(); }, .onInterval = keepFile, .interval = kInterval};
}

void StatisticsReport::writeFile() {
  if (m_options.statisticsFile.empty()) return;
  try {
    replaceFile(m_options.statisticsFile, prometheusText(NfsServer::instance().getStatistics()));
    m_hasFailed = false;
  } catch (const std::exception& e) {
    if (!std::exchange(m_hasFailed, true)) std::cerr << "nfslib: " << e.what() << '\n';
  }
}

void StatisticsReport::print() {
  std::cerr << readable(NfsServer::instance().getStatistics());
  writeFile();
}

}  // namespace nfslib::tool
