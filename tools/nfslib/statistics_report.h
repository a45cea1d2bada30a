#pragma once

#include "stop_signals.h"

#include <string>

namespace nfslib::tool {

// What an administrator wants to see of the server.
struct ReportOptions {
  bool isVerbose = false;      // connections as they come and go, and the statistics at the end
  std::string statisticsFile;  // for Prometheus; empty: none
};

// Tells what the server of this process does, on standard error and in a file. For one thread; the
// lines of connections come from others.
class StatisticsReport {
 public:
  // Throws std::runtime_error when the file cannot be written.
  explicit StatisticsReport(ReportOptions options);
  ~StatisticsReport();
  StatisticsReport(const StatisticsReport&) = delete;
  StatisticsReport& operator=(const StatisticsReport&) = delete;

  // The last report, once nothing is served any more.
  void end();
  // What is to be done while the server runs; for as long as this lives.
  StopSignals::Meanwhile meanwhile();

 private:
  // The file, in the place of the one before. One that cannot be written any more is told of once.
  void writeFile();
  // The statistics on standard error, and the file.
  void print();

  const ReportOptions m_options;
  bool m_hasFailed = false;
};

}  // namespace nfslib::tool
