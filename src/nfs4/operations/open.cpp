#include "common/host_failure.h"
#include "fs/entry_name.h"
#include "nfs4/change.h"
#include "nfs4/names.h"
#include "nfs4/open_states.h"
#include "nfs4/operations.h"
#include "nfs4/owner_turn.h"
#include "nfs4/rights.h"

#include <optional>
#include <string>

#include <magic_enum/magic_enum.hpp>

namespace nfslib::nfs4::operations {

using nfs::OperationResult;

namespace {

enum OpenType : unsigned { kNoCreate = 0, kCreate = 1 };
// createmode4
enum CreateMode : unsigned { kUnchecked = 0, kGuarded = 1, kExclusive = 2, kExclusive41 = 3 };
// open_claim_type4, RFC 7530 section 16.16.1 and RFC 5661 section 18.16.1
enum class Claim : unsigned {
  CLAIM_NULL = 0,
  CLAIM_PREVIOUS = 1,
  CLAIM_DELEGATE_CUR = 2,
  CLAIM_DELEGATE_PREV = 3,
  CLAIM_FH = 4,
  CLAIM_DELEG_CUR_FH = 5,
  CLAIM_DELEG_PREV_FH = 6,
};

struct Arguments {
  unsigned sequenceId = 0;
  unsigned shareAccess = 0;
  unsigned shareDeny = 0;
  std::uint64_t clientId = 0;
  std::string owner;
  unsigned type = kNoCreate;
  unsigned createMode = kUnchecked;
  verifier4 verifier;
  std::optional<Bitmap> bitmap;  // of the attributes that the client sends
  Nfs4SetAttributes attributes;
  Claim claim = Claim::CLAIM_NULL;
  std::string name;
  bool needsConfirmation = false;
  OpenStates::Opened opened;

  bool creates() const { return type == kCreate; }
  bool hasName() const {
    return claim == Claim::CLAIM_NULL || claim == Claim::CLAIM_DELEGATE_CUR ||
           claim == Claim::CLAIM_DELEGATE_PREV;
  }
};

void readAttributes(Call& call, Arguments& args, OperationResult& status) {
  call.stream >> args.bitmap.emplace();
  checkDecoded(call);
  args.attributes = readWritableAttributes(call.stream, *args.bitmap, status, attributeTable(call));
}

void readHow(Call& call, Arguments& args, OperationResult& status) {
  call.stream >> args.createMode;
  switch (args.createMode) {
    case kUnchecked:
    case kGuarded:
      return readAttributes(call, args, status);
    case kExclusive:
      call.stream >> args.verifier;
      return;
    case kExclusive41:
      call.stream >> args.verifier;
      return readAttributes(call, args, status);
    default:
      status = OperationResult::InvalidArgument;
  }
}

void readClaim(Call& call, Arguments& args) {
  unsigned claim = 0;
  unsigned delegationType = 0;
  FsObjectStateId stateId;
  call.stream >> claim;
  args.claim = static_cast<Claim>(claim);
  switch (args.claim) {
    case Claim::CLAIM_NULL:
    case Claim::CLAIM_DELEGATE_PREV:
      call.stream >> args.name;
      return;
    case Claim::CLAIM_DELEGATE_CUR:
      call.stream >> stateId >> args.name;
      return;
    case Claim::CLAIM_PREVIOUS:
      call.stream >> delegationType;
      return;
    case Claim::CLAIM_DELEG_CUR_FH:
      call.stream >> stateId;
      return;
    case Claim::CLAIM_FH:
    case Claim::CLAIM_DELEG_PREV_FH:
      return;
  }
  call.stream.errorOccurred();  // nobody knows what follows
}

Arguments readArguments(Call& call, OperationResult& status) {
  Arguments args;
  call.stream >> args.sequenceId >> args.shareAccess >> args.shareDeny >> args.clientId >>
      args.owner >> args.type;
  // What an unknown mode has behind it cannot be passed over.
  if (args.creates()) readHow(call, args, status);
  if (args.creates() && status == OperationResult::InvalidArgument) return args;
  readClaim(call, args);
  return args;
}

std::string nameOf(Claim claim) {
  const std::string_view name = magic_enum::enum_name(claim);
  return std::string(name.empty() ? "UNKNOWN" : name);
}

OperationResult statusOfName(const Call& call, const std::string& name) {
  OperationResult status = statusUnlessDirectory(call.current());
  if (status == OperationResult::OK) status = statusUnlessChangeable(call.current());
  if (status == OperationResult::OK && name.empty()) status = OperationResult::InvalidArgument;
  return status == OperationResult::OK ? statusIfTooLong(call, name) : status;
}

// There are no delegations, and no handle outlives the server's end: what a claim other than the
// first and CLAIM_FH is about was never given.
OperationResult statusOfClaim(Claim claim) {
  switch (claim) {
    case Claim::CLAIM_NULL:
    case Claim::CLAIM_FH:
      return OperationResult::OK;
    case Claim::CLAIM_PREVIOUS:
      return OperationResult::NoGrace;
    case Claim::CLAIM_DELEGATE_CUR:
    case Claim::CLAIM_DELEG_CUR_FH:
      return OperationResult::BadStateId;
    case Claim::CLAIM_DELEGATE_PREV:
    case Claim::CLAIM_DELEG_PREV_FH:
      return OperationResult::NotSupported;
  }
  return OperationResult::BadXdr;  // such arguments do not get here
}

// What the current object is now is opened.
OperationResult openCurrent(Call& call, Arguments& args, ChangeInfo& change) {
  constexpr unsigned kWants = 0x3'FF00;  // OPEN4_SHARE_ACCESS_WANT_*: hints on delegations
  const auto& object = call.current();
  const OperationResult status =
      openStates(call).open(call,
                            {.clientId = args.clientId,
                             .owner = args.owner,
                             .access = args.shareAccess & ~kWants,
                             .deny = args.shareDeny,
                             .needsConfirmation = args.needsConfirmation},
                            args.opened);
  change = {false, object.metaData.modifyTime, object.metaData.modifyTime};
  return status;
}

void openByHandle(Call& call, Arguments& args, OperationResult& status, ChangeInfo& change) {
  if (status != OperationResult::OK) return;
  status = statusUnlessChangeable(call.current());
  if (status == OperationResult::OK) status = statusUnlessFile(call.current());
  const bool resizes = args.attributes.size.has_value();
  if (status == OperationResult::OK) status = statusOfOpening(call, args.shareAccess, resizes);
  if (status == OperationResult::OK) status = openCurrent(call, args, change);
}

void openByName(Call& call, Arguments& args, OperationResult& status, ChangeInfo& change) {
  if (status != OperationResult::OK) return;
  status = statusOfName(call, args.name);
  if (status != OperationResult::OK) return;
  const auto directory = call.current();
  if (!isOneComponent(args.name)) {
    status = OperationResult::NoEntry;
    return;
  }
  if (!call.session().setCurrentFileSystemObject(call.service, args.name)) {
    status = call.session().refusalOr(OperationResult::NoEntry);
    return;
  }
  openByHandle(call, args, status, change);
  if (status != OperationResult::OK) call.current() = directory;
}

// Opens the name that is there already, if the mode lets it; false when there is none.
bool openExisting(Call& call, Arguments& args, OperationResult& status, ChangeInfo& change) {
  const auto& object = call.current();
  if (!isOneComponent(args.name) || !object.fileSystem->pathExists(object.path / args.name)) {
    return false;
  }
  if (args.createMode != kUnchecked) {
    const auto at = object.path / args.name;
    const bool isRepeated = args.createMode != kGuarded &&
                            openStates(call).madeExclusively(
                                call, object.fileSystem->getMetaData(at).fileId, args.verifier);
    if (!isRepeated) {
      status = OperationResult::FileExist;
      return true;
    }
  }
  openByName(call, args, status, change);
  return true;
}

void createFile(Call& call, Arguments& args, OperationResult& status, ChangeInfo& change) {
  if (status != OperationResult::OK) return;
  status = statusOfName(call, args.name);
  if (status != OperationResult::OK) return;
  if (openExisting(call, args, status, change)) {
    // Of the attributes only a size of zero is meant for a file that was there.
    std::optional<std::uint64_t> size = args.attributes.size;
    args.attributes = {};
    if (size == 0U && args.createMode == kUnchecked) args.attributes.size = 0;
    return;
  }
  const auto& object = call.current();
  const NfsPath directory = object.path;
  const MetaData parent = object.metaData;
  status = statusOfHostCall(
      call.service.profile(),
      [&] {
        requireEntryName(args.name);
        requireRightToMake(call, args.attributes);
        object.fileSystem->openDirectory(directory)->CreateFile(args.name);
      },
      [&](std::string_view why) {
        log().warn("Failed to create file [%1] in directory [%2]: [%3]", args.name, directory, why);
        return statusOfCreation(why);
      });
  if (status != OperationResult::OK) return;
  if (!call.session().setCurrentFileSystemObject(call.service, args.name)) {
    status = OperationResult::NoEntry;
    return;
  }
  giveToCaller(call, parent);
  status = openCurrent(call, args, change);
  if (args.createMode == kExclusive || args.createMode == kExclusive41) {
    openStates(call).rememberExclusive(call, args.verifier);
  }
}

// The attributes that came with OPEN.
OperationResult setSentAttributes(Call& call, const Arguments& args, Bitmap& applied) {
  if (!args.bitmap) return OperationResult::OK;
  if (args.bitmap->size() > kMostWords) return OperationResult::AttributeNotSupported;
  MetaData unused;
  if (setAttributes(args.attributes, unused, attributeTable(call)).empty())
    return OperationResult::OK;
  return statusOfHostCall(
      call.service.profile(), [&] { applied = applyAttributes(call, args.attributes); },
      [](std::string_view why) {
        log().warn("Failed to set attributes: [%1]", why);
        return OperationResult::HardwareIoError;
      });
}

// `status` is what the arguments are worth.
OperationResult answer(Call& call, Arguments& args, OperationResult status) {
  ChangeInfo change;
  const ChangedDirectory directory(call.current());
  if (!args.hasName()) {
    openByHandle(call, args, status, change);
  } else if (args.creates()) {
    createFile(call, args, status, change);
  } else {
    openByName(call, args, status, change);
  }
  Bitmap applied;
  if (status == OperationResult::OK) {
    status = setSentAttributes(call, args, applied);
    if (status != OperationResult::OK && args.opened.isNew) {
      openStates(call).takeBack(call, args.opened);
    }
  }
  if (status == OperationResult::OK && directory.countsChanges()) change = directory.info();
  return respond(call, 18, status, [&] {
    constexpr unsigned kNoDelegation = 0;
    call.stream << args.opened.stateId << change << args.opened.flags << applied << kNoDelegation;
  });
}

}  // namespace

OperationResult COpen::execute(Call& call) {
  OperationResult status = OperationResult::OK;
  Arguments args = readArguments(call, status);
  if (args.owner.size() > kLongestOwner) call.stream.errorOccurred();
  checkDecoded(call);
  if (args.creates() && !call.writeEnabled) status = OperationResult::ReadOnlyFileSystem;
  if (status == OperationResult::OK && call.service.profile().refusesReclaims) {
    status = statusOfClaim(args.claim);
  }
  log().dbg("Open: sequenceId [%1], type [%2], claim type [%3], name [%4]", args.sequenceId,
            args.creates() ? "create" : "no_create", nameOf(args.claim), args.name);

  OwnerTurn turn(call, 18, OwnerTurn::Kind::Open, {args.clientId, args.owner}, args.sequenceId);
  args.needsConfirmation = !turn.isConfirmed();
  return turn.run([&] { return answer(call, args, status); });
}

}  // namespace nfslib::nfs4::operations
