#include "common/log.h"
#include "common/permission.h"
#include "common/xdr_records.h"
#include "nfs3/arguments.h"
#include "nfs3/attributes.h"
#include "nfs3/procedures.h"

#include <array>

namespace nfslib::nfs3::procedures {

using nfs::OperationResult;
using nfslib::utility::AccessRight;
using nfslib::utility::CProtocolUtils;

namespace {

struct Rule {
  AccessRight right;
  bool onDirectories;
  bool onOthers;
  bool onReadOnlyExports;
};

// In the order in which the refusals are logged.
constexpr std::array kRules{
    Rule{nfslib::utility::kAccessRead, true, true, true},
    Rule{nfslib::utility::kAccessLookup, true, false, true},
    Rule{nfslib::utility::kAccessModify, true, true, false},
    Rule{nfslib::utility::kAccessExtend, true, true, false},
    Rule{nfslib::utility::kAccessDelete, true, true, false},
    Rule{nfslib::utility::kAccessExecute, false, true, false},
};

// Running a file changes nothing.
constexpr auto kModernRules = [] {
  auto rules = kRules;
  rules.back().onReadOnlyExports = true;
  return rules;
}();

}  // namespace

void CCheckAccess::execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller,
                           bool writeEnabled) {
  const NfsHandle handle = utility::readHandle(stream, service);
  const auto [view, path] = utility::getPath(handle, service);
  const MetaData md = view->getMetaData(path);
  unsigned requested = 0;
  stream >> requested;
  utility::checkDecoded(stream);
  log().dbg("checkAccess: path [%1] access [%2]", path, requested);

  const bool isDirectory = isType(md, FileType::Directory);
  unsigned granted = 0;
  const Profile& profile = service.profile();
  for (const Rule& rule : profile.isModern ? kModernRules : kRules) {
    const bool applies = isDirectory ? rule.onDirectories : rule.onOthers;
    if (!applies || (!writeEnabled && !rule.onReadOnlyExports)) continue;
    CProtocolUtils::checkPermission(path, md, caller, requested, rule.right, granted, profile,
                                    view->accessControl());
  }
  log().dbg("Check result : [%1]", granted);

  stream << OperationResult::OK << PostOpAttr{utility::getAttributes(*view, handle, md)} << granted;
}

}  // namespace nfslib::nfs3::procedures
