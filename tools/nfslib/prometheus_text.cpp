#include "prometheus_text.h"

#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <limits>
#include <locale>
#include <ostream>
#include <sstream>

namespace nfslib::tool {

namespace {

using Procedure = NfsServerStatistics::Procedure;

constexpr std::string_view kDuration = "nfslib_call_duration_seconds";

double secondsOf(std::chrono::nanoseconds time) {
  return std::chrono::duration<double>(time).count();
}

void head(std::ostream& out, std::string_view name, std::string_view type, std::string_view help) {
  out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
}

void single(std::ostream& out, std::string_view name, std::string_view type, std::string_view help,
            std::uint64_t value) {
  head(out, name, type, help);
  out << name << ' ' << value << '\n';
}

// Names of procedures are capitals, digits and signs that need no escape.
std::string labels(const Procedure& procedure) {
  std::string text = "program=\"";
  text.append(programName(procedure)).append("\",version=\"");
  text.append(std::to_string(procedure.version)).append("\",kind=\"");
  text.append(procedure.isOperation ? "operation" : "procedure").append("\",procedure=\"");
  return text.append(procedure.name).append("\"");
}

void procedures(std::ostream& out, const NfsServerStatistics& all, std::string_view name,
                std::string_view help, std::uint64_t Procedure::*count) {
  head(out, name, "counter", help);
  for (const Procedure& procedure : all.procedures) {
    out << name << '{' << labels(procedure) << "} " << procedure.*count << '\n';
  }
}

void caches(std::ostream& out, const NfsServerStatistics& all, std::string_view name,
            std::string_view help, std::uint64_t NfsServerStatistics::Cache::*count) {
  head(out, name, "counter", help);
  const auto line = [&](std::string_view cache, const NfsServerStatistics::Cache& value) {
    out << name << "{cache=\"" << cache << "\"} " << value.*count << '\n';
  };
  line("attributes", all.attributes);
  line("directories", all.directories);
  line("files", all.files);
  line("listings", all.listings);
  line("replies", all.replies);
}

void durations(std::ostream& out, const NfsServerStatistics& all) {
  head(out, kDuration, "histogram",
       "Service time of the calls that were timed: of each thread the first and each sixteenth.");
  for (const Procedure& procedure : all.procedures) {
    const NfsServiceTimes& times = procedure.serviceTimes;
    const std::string own = labels(procedure);
    std::uint64_t upToHere = 0;
    for (std::size_t i = 0; i < times.buckets.size(); ++i) {
      upToHere += times.buckets[i];
      out << kDuration << "_bucket{" << own << ",le=\"";
      if (i + 1 == times.buckets.size()) {
        out << "+Inf";
      } else {
        out << secondsOf(NfsServiceTimes::upperBound(i));
      }
      out << "\"} " << upToHere << '\n';
    }
    out << kDuration << "_sum{" << own << "} " << secondsOf(times.sum) << '\n'
        << kDuration << "_count{" << own << "} " << upToHere << '\n';
  }
}

}  // namespace

std::string_view programName(const Procedure& procedure) {
  constexpr unsigned kPortmap = 100'000;
  constexpr unsigned kMount = 100'005;
  if (procedure.program == kPortmap) return "portmap";
  return procedure.program == kMount ? "mount" : "nfs";
}

std::string prometheusText(const NfsServerStatistics& all) {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << std::setprecision(std::numeric_limits<double>::max_digits10);
  procedures(out, all, "nfslib_calls_total", "Calls that were served.", &Procedure::calls);
  procedures(out, all, "nfslib_call_errors_total", "Calls with a status that is not OK.",
             &Procedure::errors);
  durations(out, all);
  single(out, "nfslib_refused_calls_total", "counter",
         "Calls of callers who may not use the server.", all.refusedCalls);
  single(out, "nfslib_invalid_calls_total", "counter",
         "Calls that could not be understood, or of no program served.", all.invalidCalls);
  single(out, "nfslib_read_bytes_total", "counter", "Bytes of files in replies to READ.",
         all.bytesRead);
  single(out, "nfslib_written_bytes_total", "counter", "Bytes written to files by WRITE.",
         all.bytesWritten);
  single(out, "nfslib_received_bytes_total", "counter", "Bytes received from the network.",
         all.bytesReceived);
  single(out, "nfslib_sent_bytes_total", "counter", "Bytes sent to the network.", all.bytesSent);
  single(out, "nfslib_open_connections", "gauge", "TCP connections at this moment.",
         all.openConnections);
  single(out, "nfslib_accepted_connections_total", "counter", "TCP connections in all.",
         all.acceptedConnections);
  caches(out, all, "nfslib_cache_hits_total", "Look-ups that a cache could answer.",
         &NfsServerStatistics::Cache::hits);
  caches(out, all, "nfslib_cache_misses_total", "Look-ups that a cache could not answer.",
         &NfsServerStatistics::Cache::misses);
  return out.str();
}

}  // namespace nfslib::tool
