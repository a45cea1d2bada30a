#include "common/clock.h"
#include "fs/entry_name.h"
#include "nfs4/change.h"
#include "nfs4/names.h"
#include "nfs4/operations.h"
#include "nfs4/rights.h"

#include <string>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

struct Arguments {
  FileType type{};
  std::string target;  // of a symbolic link
  CharDevSpec device;
  std::string name;
  Bitmap attributes;
  Nfs4SetAttributes values;
  OperationResult statusOfValues = OperationResult::OK;
};

Arguments readArguments(Call& call) {
  Arguments args;
  unsigned type = 0;
  call.stream >> type;
  args.type = static_cast<FileType>(type);
  if (args.type == FileType::SymbolicLink) call.stream >> args.target;
  if (args.type == FileType::BlockDevice || args.type == FileType::CharacterDevice) {
    call.stream >> args.device;
  }
  call.stream >> args.name >> args.attributes;
  args.values = readWritableAttributes(call.stream, args.attributes, args.statusOfValues,
                                       attributeTable(call));
  checkDecoded(call);
  return args;
}

OperationResult statusOf(const Call& call, const Arguments& args) {
  OperationResult status = statusUnlessDirectory(call.current());
  if (status == OperationResult::OK) status = statusIfTooLong(call, args.name);
  if (status == OperationResult::OK) status = statusUnlessChangeable(call.current());
  const bool canBeMade = args.type == FileType::Directory || args.type == FileType::SymbolicLink;
  if (status == OperationResult::OK && !canBeMade) status = OperationResult::BadType;
  const bool checksFirst = call.service.profile().checksBeforeMaking;
  return status == OperationResult::OK && checksFirst ? args.statusOfValues : status;
}

void create(const Call& call, const Arguments& args) {
  requireEntryName(args.name);
  requireRightToMake(call, args.values);
  auto& object = call.current();
  const auto parent = object.fileSystem->openDirectory(object.path);
  if (args.type == FileType::Directory) {
    parent->CreateSubdir(args.name);
  } else {
    parent->CreateSymlink(args.name, args.target);
  }
  if (!call.service.profile().stampsTimes) return;
  object.metaData = object.fileSystem->readMetaData(object.path);
  object.metaData.accessTime = object.metaData.modifyTime = utility::currentSeconds();
  object.fileSystem->setMetaData(object.path, object.metaData);
  object.fileSystem->dropMetaData(object.path);
}

}  // namespace

OperationResult CCreate::execute(Call& call) {
  const Arguments args = readArguments(call);
  log().dbg("Create: type [%1], name [%2], attributes to set [%3]",
            static_cast<unsigned>(args.type), args.name, bitmap4ToStr(args.attributes));

  const ChangedDirectory directory(call.current());
  const NfsPath path = call.current().path;
  const MetaData parent = call.current().metaData;
  const auto tell = [&](std::string_view why) {
    log().warn("Failed to create filesystem object [%1] in directory [%2]: [%3]", args.name, path,
               why);
    return statusOfCreation(why);
  };
  OperationResult status = statusOf(call, args);
  if (status == OperationResult::OK)
    status = statusOfHostCall(
        call.service.profile(), [&] { create(call, args); }, tell);
  if (status == OperationResult::OK &&
      !call.session().setCurrentFileSystemObject(call.service, args.name)) {
    status = call.session().refusalOr(OperationResult::NoEntry);
  }
  Bitmap applied;
  if (status == OperationResult::OK) {
    giveToCaller(call, parent);
    status = args.statusOfValues;
    if (status == OperationResult::OK) {
      status = statusOfHostCall(
          call.service.profile(), [&] { applied = applyAttributes(call, args.values); }, tell);
    }
  }
  return respond(call, 6, status, [&] { call.stream << directory.info() << applied; });
}

}  // namespace nfslib::nfs4::operations
