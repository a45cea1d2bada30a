#include "nfs3/procedure_table.h"

#include "nfs3/procedures.h"

#include <algorithm>
#include <array>
#include <functional>

namespace nfslib::nfs3 {

namespace {

using namespace procedures;
using enum Effect;

template <class Handler>
void plain(const Call& call) {
  Handler::execute(call.stream, call.service);
}

template <class Handler>
void withCaller(const Call& call) {
  Handler::execute(call.stream, call.service, call.caller);
}

constexpr std::array kModern{
    Procedure{0, "NULL", Reads, 0, [](const Call&) {}},
    Procedure{1, "GETATTR", Reads, 0, plain<CGetAttributes>},
    Procedure{2, "SETATTR", ChangesOnce, 2, withCaller<CSetAttributes>},
    Procedure{3, "LOOKUP", Reads, 1, withCaller<CLookupObject>},
    Procedure{4, "ACCESS", Reads, 1,
              [](const Call& call) {
                CCheckAccess::execute(call.stream, call.service, call.caller, call.writeEnabled);
              }},
    Procedure{5, "READLINK", Reads, 1, plain<CReadLink>},
    Procedure{6, "READ", Reads, 1, withCaller<CReadFile>},
    Procedure{7, "WRITE", Changes, 2, withCaller<CWriteFile>},
    Procedure{8, "CREATE", ChangesOnce, 2, withCaller<CCreateFile>},
    Procedure{9, "MKDIR", ChangesOnce, 2, withCaller<CMakeDirectory>},
    Procedure{10, "SYMLINK", ChangesOnce, 2, withCaller<CSymlink>},
    Procedure{12, "REMOVE", ChangesOnce, 2, withCaller<CRemoveFile>},
    Procedure{13, "RMDIR", ChangesOnce, 2, withCaller<CRemoveDirectory>},
    Procedure{14, "RENAME", ChangesOnce, 4, withCaller<CRename>},
    Procedure{15, "LINK", ChangesOnce, 3, withCaller<CLink>},
    Procedure{16, "READDIR", Reads, 1, withCaller<CReadDirectory>},
    Procedure{17, "READDIRPLUS", Reads, 1,
              [](const Call& call) {
                CReadDirectory::executeExtended(call.stream, call.service, call.caller);
              }},
    Procedure{18, "FSSTAT", Reads, 1, plain<CGetDynamicFsInfo>},
    Procedure{19, "FSINFO", Reads, 1, plain<CGetStaticFsInfo>},
    Procedure{20, "PATHCONF", Reads, 1, plain<CGetPathConfiguration>},
    Procedure{21, "COMMIT", Reads, 2, plain<CCommit>},
};
static_assert(std::ranges::is_sorted(kModern, std::ranges::less_equal{}, &Procedure::number));

constexpr auto kClassic = [] {
  auto rows = kModern;
  for (Procedure& row : rows) {
    row.failureFlags = 1;
    row.effect = Reads;
  }
  return rows;
}();

}  // namespace

std::span<const Procedure> procedureTable(const Profile& profile) {
  return profile.isModern ? kModern : kClassic;
}

const Procedure* findProcedure(unsigned number, const Profile& profile) {
  const std::span<const Procedure> table = procedureTable(profile);
  const auto row = std::ranges::lower_bound(table, number, {}, &Procedure::number);
  return row != table.end() && row->number == number ? &*row : nullptr;
}

}  // namespace nfslib::nfs3
