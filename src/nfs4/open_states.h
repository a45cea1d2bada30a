#pragma once

#include <nfslib/file_system.h>

#include "common/xdr_records.h"
#include "nfs4/call.h"

#include <cstdint>
#include <memory>
#include <string>

namespace nfslib::nfs4 {

// OPEN4_SHARE_ACCESS_* and OPEN4_SHARE_DENY_*, RFC 7530 section 16.16.1
enum Share : unsigned { kShareNone = 0, kShareRead = 1, kShareWrite = 2, kShareBoth = 3 };

// What is open, and how OPEN, READ, WRITE, SETATTR and CLOSE find it. All of them work on the
// current object. One kind a profile, without data of its own.
class OpenStates {
 public:
  struct Request {
    std::uint64_t clientId = 0;  // as the arguments name it; sessions know their client
    std::string owner;
    unsigned access = kShareBoth;
    unsigned deny = kShareNone;
    bool needsConfirmation = false;  // the stateid is good for nothing but OPEN_CONFIRM
  };
  struct Opened {
    FsObjectStateId stateId;
    bool isNew = false;  // the owner did not have the file open
    unsigned flags = 0;  // OPEN4_RESULT_*
  };
  // Changing attributes other than the size needs nothing open.
  enum class Use { Read, Write, Resize, Touch };

  // Opens the current object, a file. What the host throws passes out.
  virtual nfs::OperationResult open(Call& call, const Request& request, Opened& opened) const = 0;
  // Takes back an open that is new, since its OPEN failed in the end.
  virtual void takeBack(Call& call, const Opened& opened) const = 0;
  // `stateId` becomes what CLOSE answers with.
  virtual nfs::OperationResult close(Call& call, FsObjectStateId& stateId) const = 0;
  // Narrows what the stateid opened, and gives it its next number.
  virtual nfs::OperationResult downgrade(Call& call, const Request& request,
                                         FsObjectStateId& stateId) const = 0;
  // Whether the current object may be used so. For reading and writing `file` is what to use then.
  virtual nfs::OperationResult use(Call& call, const FsObjectStateId& stateId, Use use,
                                   std::shared_ptr<File>& file) const = 0;

  // The verifier that the current object, a file, was made exclusively with.
  virtual void rememberExclusive(Call& call, const verifier4& verifier) const = 0;
  // Whether the file of that id, in the directory that is the current object, was made with it.
  virtual bool madeExclusively(Call& call, std::uint64_t fileId,
                               const verifier4& verifier) const = 0;

 protected:
  ~OpenStates() = default;
};

// Those of the profile that the call is served by.
const OpenStates& openStates(const Call& call);
// Of the classic profile: open state belongs to a session and is found by the current object.
const OpenStates& sessionOpenStates();
// Of the modern one: found by its stateid, whoever sends it through whatever session.
const OpenStates& stateIdOpenStates();

}  // namespace nfslib::nfs4
