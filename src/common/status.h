#pragma once

#include <cstdint>
#include <exception>
#include <string_view>

namespace nfslib::nfs {

// The status word of both protocol versions, as it goes on the wire: nfsstat3 (RFC 1813
// section 2.6) up to 71, and the codes that only version 4 has (RFC 7530 section 13, RFC 5661
// section 15) from 10001 on.
enum class OperationResult : std::uint32_t {
  OK = 0,
  NotOwner = 1,
  NoEntry = 2,
  HardwareIoError = 5,
  NoSuchDeviceOrAddress = 6,
  PermissionDenied = 13,
  FileExist = 17,
  CrossDeviceHardLink = 18,
  NoSuchDevice = 19,
  NotDirectory = 20,
  IsDirectory = 21,
  InvalidArgument = 22,
  FileTooLarge = 27,
  NoSpaceLeftOnDevice = 28,
  ReadOnlyFileSystem = 30,
  TooManyHardLinks = 31,
  FileNameIsTooLong = 63,
  DirectoryIsNotEmpty = 66,
  ResourceHardLimitExceeded = 69,
  InvalidFileHandle = 70,
  TooManyLevelsOfRemote = 71,

  BadHandle = 10001,
  NotSync = 10002,
  BadCookie = 10003,
  NotSupported = 10004,
  TooSmall = 10005,
  ServerFault = 10006,
  BadType = 10007,
  Delay = 10008,
  Same = 10009,
  Denied = 10010,
  Expired = 10011,
  Locked = 10012,
  Grace = 10013,
  HandleExpired = 10014,
  ShareDenied = 10015,
  WrongSecurity = 10016,
  ClientIdInUse = 10017,
  Resource = 10018,
  Moved = 10019,
  NoFileHandle = 10020,
  MinorVersionMismatch = 10021,
  StaleClientId = 10022,
  StaleStateId = 10023,
  OldStateId = 10024,
  BadStateId = 10025,
  BadSequenceId = 10026,
  NotSame = 10027,
  LockRange = 10028,
  SymbolicLink = 10029,
  RestoreFileHandle = 10030,
  LeaseMoved = 10031,
  AttributeNotSupported = 10032,
  NoGrace = 10033,
  ReclaimBad = 10034,
  ReclaimConflict = 10035,
  BadXdr = 10036,
  LocksHeld = 10037,
  OpenMode = 10038,
  BadOwner = 10039,
  BadCharacter = 10040,
  BadName = 10041,
  BadRange = 10042,
  LockNotSupported = 10043,
  OperationIllegal = 10044,
  Deadlock = 10045,
  FileOpen = 10046,
  AdminRevoked = 10047,
  CallbackPathDown = 10048,
  BadIoMode = 10049,
  BadLayout = 10050,
  BadSessionDigest = 10051,
  BadSession = 10052,
  BadSlot = 10053,
  CompleteAlready = 10054,
  ConnectionNotBound = 10055,
  DelegationAlreadyWanted = 10056,
  BackChannelBusy = 10057,
  LayoutTryLater = 10058,
  LayoutUnavailable = 10059,
  NoMatchingLayout = 10060,
  RecallConflict = 10061,
  UnknownLayoutType = 10062,
  SequenceMisordered = 10063,
  SequencePosition = 10064,
  RequestTooBig = 10065,
  ReplyTooBig = 10066,
  ReplyTooBigToCache = 10067,
  RetryUncachedReply = 10068,
  UnsafeCompound = 10069,
  TooManyOperations = 10070,
  OperationNotInSession = 10071,
  HashAlgorithmUnsupported = 10072,
  ClientIdBusy = 10074,
  PnfsIoHole = 10075,
  SequenceFalseRetry = 10076,
  BadHighSlot = 10077,
  DeadSession = 10078,
  EncryptionAlgorithmUnsupported = 10079,
  PnfsNoLayout = 10080,
  NotOnlyOperation = 10081,
  WrongCredential = 10082,
  WrongType = 10083,
  DelegationUnavailable = 10084,
  RejectDelegation = 10085,
  ReturnConflict = 10086,
  DelegationRevoked = 10087,
};

// The enumerator's name for the codes that both versions have (those up to 71), empty for the
// others and for unknown values.
std::string_view nameOf(OperationResult result);

// A failure whose protocol status is decided, thrown before any result has been written.
class NfsOperationError : public std::exception {
 public:
  explicit NfsOperationError(OperationResult result) : m_result(result) {}
  OperationResult result() const { return m_result; }
  // The name of the result; empty when it has none.
  const char* what() const noexcept override;

 private:
  OperationResult m_result;
};

}  // namespace nfslib::nfs

// The same for code that lives outside the library's namespaces; the NFS version 4 dispatcher turns
// it into a status.
class OperationError : public std::exception {
 public:
  explicit OperationError(nfslib::nfs::OperationResult result) : m_result(result) {}
  nfslib::nfs::OperationResult result() const { return m_result; }

 private:
  nfslib::nfs::OperationResult m_result;
};
