#include "nfs4/operation_table.h"

#include "nfs4/operations.h"

#include <algorithm>
#include <array>
#include <functional>

namespace nfslib::nfs4 {

namespace {

using namespace operations;
using nfs::OperationResult;

constexpr std::array kOperations{
    Operation{3, "ACCESS", Rule::Any, CCheckAccess::execute},
    Operation{4, "CLOSE", Rule::Any, CClose::execute},
    Operation{6, "CREATE", Rule::Write, CCreate::execute}.needing(Needs::ChangeEntries),
    Operation{9, "GETATTR", Rule::Any, CGetAttributes::execute},
    Operation{10, "GETFH", Rule::Any, CGetFileHandle::execute},
    Operation{11, "LINK", Rule::Write, CLink::execute}.needing(Needs::ChangeEntries),
    Operation{15, "LOOKUP", Rule::Any, CLookup::execute}.needing(Needs::Search),
    Operation{16, "LOOKUPP", Rule::Any, CLookupParent::execute}.needing(Needs::Search),
    Operation{17, "NVERIFY", Rule::Any,
              [](Call& call) { return CVerify::execute(call, CVerify::Mode::NotEqual); }},
    Operation{18, "OPEN", Rule::Any, COpen::execute}.needing(Needs::Search),
    Operation{22, "PUTFH", Rule::Any,
              [](Call& call) { return CPutFileHandle::execute(call, OperationResult::BadHandle); }},
    Operation{24, "PUTROOTFH", Rule::Any, [](Call& call) { return CPutRootFh::execute(call, 24); }},
    Operation{25, "READ", Rule::Any, CRead::execute},
    Operation{26, "READDIR", Rule::Any, CReadDirectory::execute}.needing(Needs::List),
    Operation{27, "READLINK", Rule::Any, CReadLink::execute},
    Operation{28, "REMOVE", Rule::Write, CRemove::execute}.needing(Needs::ChangeEntries),
    Operation{29, "RENAME", Rule::Write, CRename::execute}.needing(Needs::ChangeBoth),
    Operation{31, "RESTOREFH", Rule::Any, CRestoreFileHandle::execute},
    Operation{32, "SAVEFH", Rule::Any, CSaveFileHandle::execute},
    Operation{34, "SETATTR", Rule::Write, CSetAttributes::execute, Minors::All,
              FailureBody::EmptyBitmap},
    Operation{35, "SETCLIENTID", Rule::Any, CSetClientId::execute, Minors::Only0},
    Operation{36, "SETCLIENTID_CONFIRM", Rule::Any, CSetClientIdConfirm::execute, Minors::Only0},
    Operation{37, "VERIFY", Rule::Any,
              [](Call& call) { return CVerify::execute(call, CVerify::Mode::Equal); }},
    Operation{38, "WRITE", Rule::Write, CWrite::execute},
    Operation{42, "EXCHANGE_ID", Rule::Alone, CExchangeId::execute},
    Operation{43, "CREATE_SESSION", Rule::Alone, CCreateSession::execute},
    Operation{44, "DESTROY_SESSION", Rule::Alone, CDestroySession::execute},
    Operation{53, "SEQUENCE", Rule::First, CSequence::execute},
    Operation{57, "DESTROY_CLIENTID", Rule::Alone, CDestroyClientId::execute},
    Operation{58, "RECLAIM_COMPLETE", Rule::Any, CReclaimComplete::execute},
};

constexpr std::array kModernOperations{
    Operation{5, "COMMIT", Rule::Any, CCommit::execute},
    Operation{7, "DELEGPURGE", Rule::Any, CDelegationPurge::execute},
    Operation{8, "DELEGRETURN", Rule::Any, CDelegationReturn::execute},
    Operation{12, "LOCK", Rule::Any, CLock::execute},
    Operation{13, "LOCKT", Rule::Any, CLockTest::execute},
    Operation{14, "LOCKU", Rule::Any, CUnlock::execute},
    Operation{20, "OPEN_CONFIRM", Rule::Any, COpenConfirm::execute, Minors::Only0},
    Operation{21, "OPEN_DOWNGRADE", Rule::Any, COpenDowngrade::execute},
    // Clients give up what is stale and ask again; "bad" they take for a fault of theirs.
    Operation{22, "PUTFH", Rule::Any,
              [](Call& call) {
                return CPutFileHandle::execute(call, OperationResult::InvalidFileHandle);
              }},
    Operation{23, "PUTPUBFH", Rule::Any, [](Call& call) { return CPutRootFh::execute(call, 23); }},
    Operation{30, "RENEW", Rule::Any, CRenew::execute, Minors::Only0},
    Operation{33, "SECINFO", Rule::Any, CSecurityInfo::execute}.needing(Needs::Search),
    Operation{39, "RELEASE_LOCKOWNER", Rule::Any, CReleaseLockOwner::execute, Minors::Only0},
    Operation{41, "BIND_CONN_TO_SESSION", Rule::Alone, CBindConnection::execute},
    Operation{45, "FREE_STATEID", Rule::Any, CFreeStateId::execute},
    Operation{52, "SECINFO_NO_NAME", Rule::Any, CSecurityInfo::executeWithoutName},
    Operation{55, "TEST_STATEID", Rule::Any, CTestStateIds::execute},
};

template <class Table>
constexpr bool isInOrder(const Table& table) {
  return std::ranges::is_sorted(table, std::ranges::less_equal{}, &Operation::number);
}
static_assert(isInOrder(kOperations) && isInOrder(kModernOperations));

// BIND_CONN_TO_SESSION, EXCHANGE_ID, CREATE_SESSION, DESTROY_SESSION, SEQUENCE, DESTROY_CLIENTID
constexpr std::array kWithoutSession{41U, 42U, 43U, 44U, 53U, 57U};

}  // namespace

std::span<const Operation> operationTable() { return kOperations; }

std::span<const Operation> modernOperationTable() { return kModernOperations; }

const Operation* findOperation(const Profile& profile, unsigned number) {
  const auto find = [&](std::span<const Operation> table) -> const Operation* {
    const auto row = std::ranges::lower_bound(table, number, {}, &Operation::number);
    return row != table.end() && row->number == number ? &*row : nullptr;
  };
  const Operation* modern = profile.isModern ? find(kModernOperations) : nullptr;
  return modern != nullptr ? modern : find(kOperations);
}

unsigned lastOperation(const Profile& profile, unsigned minorVersion) {
  constexpr unsigned kLastOfMinor0 = 39;
  constexpr unsigned kLastOfMinor1 = 58;
  return profile.isModern && minorVersion == 0 ? kLastOfMinor0 : kLastOfMinor1;
}

bool needsNoSession(unsigned number) {
  return std::ranges::find(kWithoutSession, number) != kWithoutSession.end();
}

}  // namespace nfslib::nfs4
