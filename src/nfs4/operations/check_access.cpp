#include "common/permission.h"
#include "nfs4/operations.h"

#include <array>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;
using namespace nfslib::utility;

namespace {

struct Right {
  unsigned bit;
  bool ofDirectories, ofOthers;
  bool changes;  // tested on servers whose exports may be changed
};
constexpr std::array kRights{
    Right{kAccessRead, true, true, false},   Right{kAccessLookup, true, false, false},
    Right{kAccessModify, true, true, true},  Right{kAccessExtend, true, true, true},
    Right{kAccessDelete, true, false, true}, Right{kAccessExecute, false, true, true},
};
// Running a file changes nothing.
constexpr auto kModernRights = [] {
  auto rights = kRights;
  rights.back().changes = false;
  return rights;
}();

}  // namespace

OperationResult CCheckAccess::execute(Call& call) {
  unsigned requested = 0;
  call.stream >> requested;
  checkDecoded(call);
  log().dbg("Requested access permissions: [%1]", requested);

  const auto& object = call.current();
  const OperationResult status = statusUnlessSet(object);
  unsigned supported = 0;
  unsigned granted = 0;
  if (status == OperationResult::OK) {
    MetaData md = object.metaData;
    if (object.isPseudoRoot()) md.mode = 0555;  // everybody may pass, nobody may change it
    const bool isDirectory = isType(md, FileType::Directory);
    const Profile& profile = call.service.profile();
    const auto* host = object.isPseudoRoot() ? nullptr : object.fileSystem->accessControl();
    for (const Right& right : profile.isModern ? kModernRights : kRights) {
      if (!(isDirectory ? right.ofDirectories : right.ofOthers)) continue;
      if (right.changes && (!call.writeEnabled || object.isPseudoRoot())) continue;
      supported |= right.bit;
      CProtocolUtils::checkPermission(object.path, md, call.caller, requested, right.bit, granted,
                                      profile, host);
    }
    // Some clients take a bit that they have not asked about for an error.
    if (profile.isModern) supported &= requested;
    log().dbg("Check result : [%1]", granted);
  }
  return respond(call, 3, status, [&] { call.stream << supported << granted; });
}

}  // namespace nfslib::nfs4::operations
