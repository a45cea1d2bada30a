// Keeps a number of equal NFS calls, of version 3 or 4.1, in flight on one TCP connection, checks
// every reply, and prints one line of JSON with what came back.

#include "client_connection.h"
#include "load_operations.h"
#include "load_version4.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace bench {
namespace {

struct Options {
  std::string operation;
  std::string host = "127.0.0.1";
  unsigned short nfsPort = 0;
  unsigned short mountPort = 0;
  std::string exportPath;
  std::string path;
  unsigned version = 3;
  unsigned inFlight = 1;
  double seconds = 1;
  double warmUp = 0;
  std::uint64_t calls = 0;
  LoadTarget target;
};

class Run {
 public:
  Run(ClientConnection& connection, LoadOperation& operation, unsigned inFlight)
      : m_connection(connection), m_operation(operation), m_inFlight(inFlight) {}

  // Starts calls for `seconds`, or until there were `maxCalls` (0: any number), then waits for all
  // that are in flight. Only the last run is counted.
  void run(double seconds, std::uint64_t maxCalls) {
    m_operation.bytes = m_operation.entries = 0;
    m_latencies.clear();
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::duration<double>(seconds));
    std::uint64_t started = 0;
    bool last = false;
    const auto startCall = [&](unsigned slot) {
      last = last || (maxCalls != 0 && started >= maxCalls);
      if (m_operation.call(m_connection, slot, last)) ++started;
    };
    const ClientConnection::Results onReply = [&](unsigned slot, Decoder results,
                                                  std::uint64_t nanoseconds) {
      m_operation.reply(slot, results);
      m_latencies.push_back(static_cast<float>(nanoseconds));
      startCall(slot);
    };
    for (unsigned slot = 0; slot < m_inFlight; ++slot) startCall(slot);
    while (m_connection.inFlight() != 0) {
      m_connection.flush();
      m_connection.receive(onReply);
      last = last || std::chrono::steady_clock::now() >= end;
    }
    m_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

  void print(const std::string& name) {
    const double calls = static_cast<double>(m_latencies.size());
    std::printf(
        "{\"operation\": \"%s\", \"in_flight\": %u, \"seconds\": %.3f, \"calls\": %.0f, "
        "\"calls_per_second\": %.1f, \"megabytes_per_second\": %.1f, \"entries_per_second\": %.1f, "
        "\"latency_us\": {\"median\": %.1f, \"p99\": %.1f}}\n",
        name.c_str(), m_inFlight, m_seconds, calls, calls / m_seconds,
        static_cast<double>(m_operation.bytes) / 1e6 / m_seconds,
        static_cast<double>(m_operation.entries) / m_seconds, percentile(0.5), percentile(0.99));
  }

 private:
  double percentile(double part) {
    if (m_latencies.empty()) return 0;
    const auto at = m_latencies.begin() +
                    static_cast<std::ptrdiff_t>(part * static_cast<double>(m_latencies.size() - 1));
    std::nth_element(m_latencies.begin(), at, m_latencies.end());
    return static_cast<double>(*at) / 1000;
  }

  ClientConnection& m_connection;
  LoadOperation& m_operation;
  const unsigned m_inFlight;
  std::vector<float> m_latencies;  // nanoseconds
  double m_seconds = 0;
};

constexpr std::size_t kFakeHandleSize = 16;

void runAndPrint(const Options& options, ClientConnection& connection, LoadOperation& operation) {
  Run run(connection, operation, options.inFlight);
  if (options.warmUp > 0) run.run(options.warmUp, 0);
  run.run(options.seconds, options.calls);
  run.print(options.operation);
}

void measure4(Options options) {
  constexpr std::uint32_t kVersion = 4;
  ClientConnection connection(options.host, options.nfsPort, kNfsProgram, kVersion,
                              options.inFlight, kMaxHeaders);
  const bool isReal = !options.exportPath.empty();
  Session4 session(connection, options.inFlight, isReal);
  LoadTarget& target = options.target;
  target.handle = isReal ? session.lookupPath(options.exportPath + "/" + options.path)
                         : Handle(kFakeHandleSize, '\0');
  if (options.operation == "read") target.fileSize = session.sizeOf(target.handle);
  const auto operation = makeOperation4(options.operation, target, session);
  runAndPrint(options, connection, *operation);
  session.end();
}

void measure3(Options options) {
  constexpr std::uint32_t kVersion = 3;
  const std::size_t largestCall =
      kMaxHeaders + (options.operation == "write" ? options.target.transfer : 0);
  ClientConnection connection(options.host, options.nfsPort, kNfsProgram, kVersion,
                              options.inFlight, largestCall);
  const Handle root = options.mountPort == 0
                          ? Handle(kFakeHandleSize, '\0')
                          : mountExport(options.host, options.mountPort, options.exportPath);
  LoadTarget& target = options.target;
  target.handle = lookupPath(connection, root, options.path);
  if (options.operation == "read" || options.operation == "write") {
    target.fileSize = sizeOf(connection, target.handle);
  }
  const auto operation = makeOperation(options.operation, target);
  runAndPrint(options, connection, *operation);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  CLI::App app("Loads an NFS server with equal calls over one TCP connection.");
  bench::Options options;
  app.add_option("operation", options.operation, "What to call")
      ->required()
      ->check(
          CLI::IsMember({"null", "getattr", "lookup", "read", "write", "readdirplus", "readdir"}));
  app.add_option("--host", options.host, "IPv4 address of the server");
  app.add_option("--nfs-port", options.nfsPort, "Port of the NFS program")->required();
  app.add_option("--nfs-version", options.version, "3, or 4 for version 4.1")
      ->check(CLI::IsMember({3, 4}));
  app.add_option("--mount-port", options.mountPort,
                 "Port of the MOUNT program; without it (version 4: without an export) a handle of "
                 "zeros is used, which suits the echo server");
  app.add_option("--export", options.exportPath, "Path of the export");
  app.add_option("--path", options.path,
                 "What to act on, relative to the export; the export itself "
                 "when not given");
  app.add_option("--in-flight", options.inFlight, "Calls in flight")->check(CLI::Range(1, 256));
  app.add_option("--seconds", options.seconds, "Start calls for so long");
  app.add_option("--calls", options.calls, "Start at most so many calls");
  app.add_option("--warm-up", options.warmUp, "Seconds of the same calls before, not counted");
  app.add_option("--size", options.target.transfer, "Bytes of a read or write")
      ->check(CLI::Range(std::size_t{1}, bench::kMaxTransfer));
  app.add_option("--entries", options.target.entries,
                 "lookup: names file-000000 and so on to choose from; readdirplus and readdir: "
                 "entries that a listing has to have")
      ->check(CLI::PositiveNumber);
  app.add_flag("--verify-data", options.target.verifyData,
               "read: every eight bytes must hold their offset, lowest byte first");
  app.add_flag("--stable", options.target.stable, "write: FILE_SYNC instead of UNSTABLE");
  CLI11_PARSE(app, argc, argv);
  try {
    options.version == 4 ? bench::measure4(options) : bench::measure3(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "load_client: %s: %s\n", options.operation.c_str(), e.what());
    return 1;
  }
}
