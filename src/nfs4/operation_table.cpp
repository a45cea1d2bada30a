#include "nfs4/operation_table.h"

#include "nfs4/operations.h"

#include <algorithm>
#include <array>
#include <functional>

namespace nfslib::nfs4 {

namespace {

using namespace operations;

constexpr std::array kOperations{
    Operation{3, "ACCESS", Rule::Any, CCheckAccess::execute},
    Operation{4, "CLOSE", Rule::Any, CClose::execute},
    Operation{6, "CREATE", Rule::Write, CCreate::execute},
    Operation{9, "GETATTR", Rule::Any, CGetAttributes::execute},
    Operation{10, "GETFH", Rule::Any, CGetFileHandle::execute},
    Operation{11, "LINK", Rule::Write, CLink::execute},
    Operation{15, "LOOKUP", Rule::Any, CLookup::execute},
    Operation{16, "LOOKUPP", Rule::Any, CLookupParent::execute},
    Operation{17, "NVERIFY", Rule::Any,
              [](Call& call) { return CVerify::execute(call, CVerify::Mode::NotEqual); }},
    Operation{18, "OPEN", Rule::Any, COpen::execute},
    Operation{22, "PUTFH", Rule::Any, CPutFileHandle::execute},
    Operation{24, "PUTROOTFH", Rule::Any, CPutRootFh::execute},
    Operation{25, "READ", Rule::Any, CRead::execute},
    Operation{26, "READDIR", Rule::Any, CReadDirectory::execute},
    Operation{27, "READLINK", Rule::Any, CReadLink::execute},
    Operation{28, "REMOVE", Rule::Write, CRemove::execute},
    Operation{29, "RENAME", Rule::Write, CRename::execute},
    Operation{31, "RESTOREFH", Rule::Any, CRestoreFileHandle::execute},
    Operation{32, "SAVEFH", Rule::Any, CSaveFileHandle::execute},
    Operation{34, "SETATTR", Rule::Write, CSetAttributes::execute, FailureBody::EmptyBitmap},
    Operation{35, "SETCLIENTID", Rule::Any, CSetClientId::execute},
    Operation{36, "SETCLIENTID_CONFIRM", Rule::Any, CSetClientIdConfirm::execute},
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
static_assert(std::ranges::is_sorted(kOperations, std::ranges::less_equal{}, &Operation::number));

// BIND_CONN_TO_SESSION, EXCHANGE_ID, CREATE_SESSION, DESTROY_SESSION, SEQUENCE, DESTROY_CLIENTID
constexpr std::array kWithoutSession{41U, 42U, 43U, 44U, 53U, 57U};

}  // namespace

std::span<const Operation> operationTable() { return kOperations; }

const Operation* findOperation(unsigned number) {
  const auto row = std::ranges::lower_bound(kOperations, number, {}, &Operation::number);
  return row != kOperations.end() && row->number == number ? &*row : nullptr;
}

bool needsNoSession(unsigned number) {
  return std::ranges::find(kWithoutSession, number) != kWithoutSession.end();
}

}  // namespace nfslib::nfs4
