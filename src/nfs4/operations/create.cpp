#include "common/clock.h"
#include "fs/entry_name.h"
#include "nfs4/change.h"
#include "nfs4/names.h"
#include "nfs4/operations.h"

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
  checkDecoded(call);
  return args;
}

OperationResult statusOf(const Call& call, const Arguments& args) {
  OperationResult status = statusUnlessDirectory(call.current());
  if (status == OperationResult::OK) status = statusIfTooLong(args.name);
  if (status == OperationResult::OK) status = statusUnlessChangeable(call.current());
  const bool canBeMade = args.type == FileType::Directory || args.type == FileType::SymbolicLink;
  return status == OperationResult::OK && !canBeMade ? OperationResult::BadType : status;
}

void create(const Call& call, const Arguments& args) {
  requireEntryName(args.name);
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
    status = OperationResult::NoEntry;
  }
  Bitmap applied;
  if (status == OperationResult::OK) {
    const Nfs4SetAttributes values =
        readWritableAttributes(call.stream, args.attributes, status, attributeTable(call));
    checkDecoded(call);
    giveToCaller(call, parent);
    if (status == OperationResult::OK) {
      status = statusOfHostCall(
          call.service.profile(), [&] { applied = applyAttributes(call, values); }, tell);
    }
  }
  return respond(call, 6, status, [&] { call.stream << directory.info() << applied; });
}

}  // namespace nfslib::nfs4::operations
