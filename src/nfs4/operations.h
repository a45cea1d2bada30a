#pragma once

#include "common/status.h"
#include "nfs4/call.h"

// The operations of NFS version 4, minor versions 0 and 1; sections are of RFC 7530, and of RFC
// 5661 where that is said. Each decodes its arguments, logs one line, works, and writes its number,
// its status and on success its result. They keep no state of their own: that is the session's.

namespace nfslib::nfs4::operations {

// ACCESS (3), section 16.1
struct CCheckAccess {
  static nfs::OperationResult execute(Call& call);
};
// CLOSE (4), section 16.2
struct CClose {
  static nfs::OperationResult execute(Call& call);
};
// COMMIT (5), section 16.3
struct CCommit {
  static nfs::OperationResult execute(Call& call);
};
// DELEGPURGE (7), section 16.5
struct CDelegationPurge {
  static nfs::OperationResult execute(Call& call);
};
// DELEGRETURN (8), section 16.6
struct CDelegationReturn {
  static nfs::OperationResult execute(Call& call);
};
// CREATE (6), section 16.4: directories and symbolic links
struct CCreate {
  static nfs::OperationResult execute(Call& call);
};
// GETATTR (9), section 16.7
struct CGetAttributes {
  static nfs::OperationResult execute(Call& call);
};
// GETFH (10), section 16.8
struct CGetFileHandle {
  static nfs::OperationResult execute(Call& call);
};
// LINK (11), section 16.9
struct CLink {
  static nfs::OperationResult execute(Call& call);
};
// LOCK (12), section 16.10
struct CLock {
  static nfs::OperationResult execute(Call& call);
};
// LOCKT (13), section 16.11
struct CLockTest {
  static nfs::OperationResult execute(Call& call);
};
// LOCKU (14), section 16.12
struct CUnlock {
  static nfs::OperationResult execute(Call& call);
};
// LOOKUP (15), section 16.13
struct CLookup {
  static nfs::OperationResult execute(Call& call);
};
// LOOKUPP (16), section 16.14
struct CLookupParent {
  static nfs::OperationResult execute(Call& call);
};
// VERIFY (37), section 16.35, and NVERIFY (17), section 16.15
struct CVerify {
  enum class Mode { Equal = 0, NotEqual = 1 };
  static nfs::OperationResult execute(Call& call, Mode mode);
};
// OPEN (18), section 16.16
struct COpen {
  static nfs::OperationResult execute(Call& call);
};
// OPEN_CONFIRM (20), section 16.18
struct COpenConfirm {
  static nfs::OperationResult execute(Call& call);
};
// OPEN_DOWNGRADE (21), section 16.19
struct COpenDowngrade {
  static nfs::OperationResult execute(Call& call);
};
// PUTFH (22), section 16.20. `unknown` is the status of handles that lead nowhere.
struct CPutFileHandle {
  static nfs::OperationResult execute(Call& call, nfs::OperationResult unknown);
};
// PUTROOTFH (24), section 16.22, and PUTPUBFH (23), section 16.21, which leads to the same place
struct CPutRootFh {
  static nfs::OperationResult execute(Call& call, unsigned operation);
};
// READ (25), section 16.23
struct CRead {
  static nfs::OperationResult execute(Call& call);
};
// READDIR (26), section 16.24
struct CReadDirectory {
  static nfs::OperationResult execute(Call& call);
};
// READLINK (27), section 16.25
struct CReadLink {
  static nfs::OperationResult execute(Call& call);
};
// REMOVE (28), section 16.26
struct CRemove {
  static nfs::OperationResult execute(Call& call);
};
// RENAME (29), section 16.27
struct CRename {
  static nfs::OperationResult execute(Call& call);
};
// RENEW (30), section 16.28
struct CRenew {
  static nfs::OperationResult execute(Call& call);
};
// RESTOREFH (31), section 16.29
struct CRestoreFileHandle {
  static nfs::OperationResult execute(Call& call);
};
// SAVEFH (32), section 16.30
struct CSaveFileHandle {
  static nfs::OperationResult execute(Call& call);
};
// SECINFO (33), section 16.31, and SECINFO_NO_NAME (52), RFC 5661 section 18.45
struct CSecurityInfo {
  static nfs::OperationResult execute(Call& call);
  static nfs::OperationResult executeWithoutName(Call& call);
};
// SETATTR (34), section 16.32
struct CSetAttributes {
  static nfs::OperationResult execute(Call& call);
};
// SETCLIENTID (35), section 16.33
struct CSetClientId {
  static nfs::OperationResult execute(Call& call);
};
// SETCLIENTID_CONFIRM (36), section 16.34
struct CSetClientIdConfirm {
  static nfs::OperationResult execute(Call& call);
};
// WRITE (38), section 16.36
struct CWrite {
  static nfs::OperationResult execute(Call& call);
};
// RELEASE_LOCKOWNER (39), section 16.37
struct CReleaseLockOwner {
  static nfs::OperationResult execute(Call& call);
};
// BIND_CONN_TO_SESSION (41), RFC 5661 section 18.34
struct CBindConnection {
  static nfs::OperationResult execute(Call& call);
};
// EXCHANGE_ID (42), RFC 5661 section 18.35
struct CExchangeId {
  static nfs::OperationResult execute(Call& call);
};
// CREATE_SESSION (43), RFC 5661 section 18.36
struct CCreateSession {
  static nfs::OperationResult execute(Call& call);
};
// DESTROY_SESSION (44), RFC 5661 section 18.37
struct CDestroySession {
  static nfs::OperationResult execute(Call& call);
};
// FREE_STATEID (45), RFC 5661 section 18.38
struct CFreeStateId {
  static nfs::OperationResult execute(Call& call);
};
// SEQUENCE (53), RFC 5661 section 18.46
struct CSequence {
  static nfs::OperationResult execute(Call& call);
};
// TEST_STATEID (55), RFC 5661 section 18.48
struct CTestStateIds {
  static nfs::OperationResult execute(Call& call);
};
// DESTROY_CLIENTID (57), RFC 5661 section 18.50
struct CDestroyClientId {
  static nfs::OperationResult execute(Call& call);
};
// RECLAIM_COMPLETE (58), RFC 5661 section 18.51
struct CReclaimComplete {
  static nfs::OperationResult execute(Call& call);
};

}  // namespace nfslib::nfs4::operations
