#include <nfslib/nfs_server_statistics.h>

#include "common/statistics.h"
#include "nfs3/procedure_table.h"
#include "nfs4/nfs4_program.h"
#include "nfs4/operation_table.h"
#include "rpc/mount_program.h"
#include "rpc/portmap_program.h"
#include "rpc/rpc_header.h"
#include "server/nfs_server_impl.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>

namespace nfslib {

namespace {

using statistics::Counter;
using statistics::Table;

// The names are the same in all profiles.
constexpr Profile kAll{.isModern = true};

template <class FoundRow>
std::string_view nameIn(const FoundRow* row) {
  return row != nullptr ? row->name : std::string_view();
}

struct CountedTable {
  Table table;
  unsigned program;
  unsigned version;
  std::string_view (*nameOf)(unsigned number);
};
constexpr std::array kTables{
    CountedTable{Table::Portmap2, rpc::kPortmapProgram, 2,
                 [](unsigned number) { return portmap::PortMapProgram::procedureName(2, number); }},
    CountedTable{Table::Portmap3, rpc::kPortmapProgram, 3,
                 [](unsigned number) { return portmap::PortMapProgram::procedureName(3, number); }},
    CountedTable{Table::Portmap4, rpc::kPortmapProgram, 4,
                 [](unsigned number) { return portmap::PortMapProgram::procedureName(4, number); }},
    CountedTable{Table::Nfs3, rpc::kNfsProgram, 3,
                 [](unsigned number) { return nameIn(nfs3::findProcedure(number, kAll)); }},
    CountedTable{Table::Nfs4, rpc::kNfsProgram, 4, nfs::Nfs4Program::procedureName},
    CountedTable{Table::Nfs4Operations, rpc::kNfsProgram, 4,
                 [](unsigned number) { return nameIn(nfs4::findOperation(kAll, number)); }},
    CountedTable{Table::Mount1, rpc::kMountProgram, 1, mount::MountProgram::procedureName},
    CountedTable{Table::Mount2, rpc::kMountProgram, 2, mount::MountProgram::procedureName},
    CountedTable{Table::Mount3, rpc::kMountProgram, 3, mount::MountProgram::procedureName},
};

std::string nameOf(const CountedTable& table, unsigned number) {
  if (number == statistics::kRows - 1) return "OTHER";
  const std::string_view name = table.nameOf(number);
  return name.empty() ? std::string("#").append(std::to_string(number)) : std::string(name);
}

}  // namespace

NfsServerStatistics NfsServer::Impl::getStatistics() {
  using statistics::Cache;
  using statistics::total;
  NfsServerStatistics all;
  for (const CountedTable& table : kTables) {
    for (unsigned number = 0; number < statistics::kRows; ++number) {
      auto procedure = total(statistics::Row{table.table, number});
      if (procedure.calls == 0) continue;
      procedure.program = table.program;
      procedure.version = table.version;
      procedure.isOperation = table.table == Table::Nfs4Operations;
      procedure.name = nameOf(table, number);
      all.procedures.push_back(std::move(procedure));
    }
  }
  all.bytesRead = total(Counter::BytesRead);
  all.bytesWritten = total(Counter::BytesWritten);
  all.bytesReceived = total(Counter::BytesReceived);
  all.bytesSent = total(Counter::BytesSent);
  // In this order, so that there are never more closed than accepted.
  const std::uint64_t closed = total(Counter::ConnectionsClosed);
  all.acceptedConnections = total(Counter::ConnectionsAccepted);
  all.openConnections = all.acceptedConnections - std::min(closed, all.acceptedConnections);
  all.refusedCalls = total(Counter::RefusedCalls);
  all.invalidCalls = total(Counter::InvalidCalls);
  all.attributes = total(Cache::Attributes);
  all.directories = total(Cache::Directories);
  all.files = total(Cache::Files);
  all.listings = total(Cache::Listings);
  all.replies = total(Cache::Replies);
  return all;
}

}  // namespace nfslib
