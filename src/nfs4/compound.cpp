#include "nfs4/compound.h"

#include "common/host_failure.h"
#include "common/statistics.h"
#include "nfs4/operation_table.h"
#include "nfs4/rights.h"

#include <exception>
#include <string>

namespace nfslib::nfs4::procedures {

using nfs::NfsOperationError;
using nfs::OperationResult;

namespace {

constexpr unsigned kWordSize = 4;

// Where the words of a reply are that are known only at its end.
struct ReplyHead {
  unsigned status = 0;
  unsigned count = 0;
};

void rewrite(MemoryStream& stream, unsigned position, unsigned word) {
  stream.seekOutput(position, SeekOrigin::Begin);
  stream << word;
  stream.seekOutput(0, SeekOrigin::End);
}

// Ends a COMPOUND early: `status` and `count` are those of the whole, and what is left of the input
// is not another call.
void end(MemoryStream& stream, const ReplyHead& head, OperationResult status, unsigned count) {
  rewrite(stream, head.status, static_cast<unsigned>(status));
  rewrite(stream, head.count, count);
  stream.skipInput(stream.getInputDataSize());
}

// A reply without results. A client needs the tag and the count to read the status.
void fail(MemoryStream& stream, const ReplyHead& head, OperationResult status,
          const std::string& tag) {
  stream.seekOutput(head.status, SeekOrigin::Begin);
  stream << status << tag << 0U;
  stream.truncateOutput();
  stream.skipInput(stream.getInputDataSize());
}

void checkHeader(const MemoryStream& stream, unsigned minorVersion, unsigned operationsCount) {
  // Every operation takes a word at least.
  if (!stream || operationsCount > stream.getInputDataSize() / kWordSize) {
    throw NfsOperationError(OperationResult::BadXdr);
  }
  if (minorVersion > 1) throw NfsOperationError(OperationResult::MinorVersionMismatch);
}

// An operation that is refused, whose arguments are not looked at.
OperationResult refuse(const Call& call, unsigned operation, OperationResult status) {
  respondAlways(call, operation, status);
  const Operation* row = findOperation(call.service.profile(), operation);
  constexpr unsigned kNoWords = 0;
  if (row != nullptr && row->failureBody == FailureBody::EmptyBitmap) call.stream << kNoWords;
  return status;
}

// For a COMPOUND of minor version 0: where objects are kept, all share one; else it is by itself.
std::shared_ptr<Nfs4Session> sessionOfMinorVersion0(const Profile& profile) {
  return profile.keepsObjects ? Nfs4Session::getDefaultSession()
                              : std::make_shared<Nfs4Session>(sessionid{}, 0, 0);
}

}  // namespace

void CCompound::execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller,
                        bool writeEnabled) {
  ReplyHead head{stream.getOutputPosition()};
  FlowOptions flow;
  std::string tag;
  // A response that is being recorded must not be gone on with by the next COMPOUND.
  const auto endResponse = [&](OperationResult status) {
    if (flow.session) flow.session->fail(status);
  };
  try {
    stream >> tag >> flow.minorVersion >> flow.operationsCount;
    log().dbg("Compound: tag [%1], minorVersion[%2], operationsCount [%3]", tag, flow.minorVersion,
              flow.operationsCount);
    checkHeader(stream, flow.minorVersion, flow.operationsCount);
    if (flow.minorVersion == 0) {
      flow.session = sessionOfMinorVersion0(service.profile());
      flow.taken = flow.session->take(service.profile());
    }
    stream << OperationResult::OK << tag;
    head.count = stream.getOutputPosition();
    stream << flow.operationsCount;

    OperationResult status = OperationResult::OK;
    for (; flow.currentOperation < flow.operationsCount; ++flow.currentOperation) {
      status = executeNextOperation(stream, service, caller, writeEnabled, flow);
      if (status != OperationResult::OK) {
        end(stream, head, status, flow.currentOperation + 1);
        break;
      }
      if (flow.responseFromCache) {
        log().dbg("Result was found in the response cache");
        const auto response = flow.session->getCurrentResponse();
        end(stream, head, response->status, response->operationsCount);
        break;
      }
    }
    const bool isWhole = flow.currentOperation == flow.operationsCount;
    const unsigned results = isWhole ? flow.currentOperation : flow.currentOperation + 1;
    if (flow.session) flow.session->flush(stream, status, results);
  } catch (const NfsOperationError& e) {
    endResponse(e.result());
    fail(stream, head, e.result(), tag);
  } catch (const std::exception& e) {
    endResponse(OperationResult::ServerFault);
    log().err("NFS operation failed. Error: [%1]", e.what());
    fail(stream, head, OperationResult::ServerFault, tag);
  }
}

OperationResult CCompound::executeNextOperation(MemoryStream& stream, NfsService& service,
                                                const rpc::AuthOpaque& caller, bool writeEnabled,
                                                FlowOptions& flow) {
  Call call{stream, service, caller, writeEnabled, flow};
  unsigned number = 0;
  stream >> number;
  checkDecoded(call);
  statistics::CountedCall counted({statistics::Table::Nfs4Operations, number});
  const OperationResult status = executeOperation(call, number);
  counted.endedWith(status == OperationResult::OK);
  return status;
}

OperationResult CCompound::executeOperation(Call& call, unsigned number) {
  MemoryStream& stream = call.stream;
  const FlowOptions& flow = call.flow;
  log().dbg("NFS4 operation: [%1]", number);
  const Profile& profile = call.service.profile();
  if (number < kFirstOperation || number > lastOperation(profile, flow.minorVersion)) {
    return refuse(call, kIllegalOperation, OperationResult::OperationIllegal);
  }
  if (!flow.session && !needsNoSession(number)) {
    return refuse(call, number, OperationResult::OperationNotInSession);
  }
  const Operation* operation = findOperation(profile, number);
  const bool isGone = profile.isModern && flow.minorVersion == 1 && operation != nullptr &&
                      operation->minors == Minors::Only0;
  if (operation == nullptr || isGone) return refuse(call, number, OperationResult::NotSupported);

  if (flow.refusal != OperationResult::OK) return refuse(call, number, flow.refusal);

  const bool isFirst = flow.currentOperation == 0;
  switch (operation->rule) {
    case Rule::Any:
      break;
    case Rule::Write:
      if (!call.writeEnabled) return refuse(call, number, OperationResult::ReadOnlyFileSystem);
      break;
    case Rule::Alone:
      if (isFirst && flow.operationsCount > 1) {
        return refuse(call, number, OperationResult::NotOnlyOperation);
      }
      break;
    case Rule::First:
      if (!isFirst) return refuse(call, number, OperationResult::SequencePosition);
      break;
  }
  if (!profile.isModern) return operation->execute(call);
  const unsigned start = stream.getOutputPosition();
  try {
    const OperationResult refusal = statusOfNeeds(call, operation->needs);
    if (refusal != OperationResult::OK) return refuse(call, number, refusal);
    return operation->execute(call);
  } catch (const NfsOperationError&) {
    throw;  // of the whole COMPOUND
  } catch (const std::exception& e) {
    // What the host has not told in any other way is the failure of this operation.
    log().warn("NFS operation [%1] failed. Error: [%2]", number, e.what());
    stream.seekOutput(start, SeekOrigin::Begin);
    stream.truncateOutput();
    return refuse(call, number, statusOfFailure(e));
  }
}

}  // namespace nfslib::nfs4::procedures
