#include "nfs3/procedure_table.h"

#include "nfs3/procedures.h"

#include <algorithm>
#include <array>
#include <functional>

namespace nfslib::nfs3 {

namespace {

using namespace procedures;

template <class Handler>
void plain(const Call& call) {
  Handler::execute(call.stream, call.service);
}

constexpr std::array kProcedures{
    Procedure{0, "NULL", [](const Call&) {}},
    Procedure{1, "GETATTR", plain<CGetAttributes>},
    Procedure{2, "SETATTR", plain<CSetAttributes>},
    Procedure{3, "LOOKUP", plain<CLookupObject>},
    Procedure{4, "ACCESS",
              [](const Call& call) {
                CCheckAccess::execute(call.stream, call.service, call.caller, call.writeEnabled);
              }},
    Procedure{5, "READLINK", plain<CReadLink>},
    Procedure{6, "READ", plain<CReadFile>},
    Procedure{7, "WRITE", plain<CWriteFile>},
    Procedure{8, "CREATE", plain<CCreateFile>},
    Procedure{9, "MKDIR", plain<CMakeDirectory>},
    Procedure{10, "SYMLINK", plain<CSymlink>},
    Procedure{12, "REMOVE", plain<CRemoveFile>},
    Procedure{13, "RMDIR", plain<CRemoveDirectory>},
    Procedure{14, "RENAME", plain<CRename>},
    Procedure{15, "LINK", plain<CLink>},
    Procedure{16, "READDIR", plain<CReadDirectory>},
    Procedure{17, "READDIRPLUS",
              [](const Call& call) { CReadDirectory::executeExtended(call.stream, call.service); }},
    Procedure{18, "FSSTAT", plain<CGetDynamicFsInfo>},
    Procedure{19, "FSINFO", plain<CGetStaticFsInfo>},
    Procedure{20, "PATHCONF", plain<CGetPathConfiguration>},
    Procedure{21, "COMMIT", plain<CCommit>},
};
static_assert(std::ranges::is_sorted(kProcedures, std::ranges::less_equal{}, &Procedure::number));

}  // namespace

std::span<const Procedure> procedureTable() { return kProcedures; }

const Procedure* findProcedure(unsigned number) {
  const auto row = std::ranges::lower_bound(kProcedures, number, {}, &Procedure::number);
  return row != kProcedures.end() && row->number == number ? &*row : nullptr;
}

}  // namespace nfslib::nfs3
