#include "nfs4/compound.h"

#include "nfs4/operation_table.h"

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
  const Operation* row = findOperation(operation);
  constexpr unsigned kNoWords = 0;
  if (row != nullptr && row->failureBody == FailureBody::EmptyBitmap) call.stream << kNoWords;
  return status;
}

}  // namespace

void CCompound::execute(MemoryStream& stream, NfsService& service, const rpc::AuthOpaque& caller,
                        bool writeEnabled) {
  ReplyHead head{stream.getOutputPosition()};
  FlowOptions flow;
  std::string tag;
  unsigned minorVersion = 0;
  // A response that is being recorded must not be gone on with by the next COMPOUND.
  const auto forgetResponse = [&] {
    if (flow.session) flow.session->setCurrentResponse(nullptr);
  };
  try {
    stream >> tag >> minorVersion >> flow.operationsCount;
    log().dbg("Compound: tag [%1], minorVersion[%2], operationsCount [%3]", tag, minorVersion,
              flow.operationsCount);
    checkHeader(stream, minorVersion, flow.operationsCount);
    if (minorVersion == 0) {
      flow.session = Nfs4Session::getDefaultSession();
      flow.taken = flow.session->take();
      flow.session->followMoves();
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
    forgetResponse();
    fail(stream, head, e.result(), tag);
  } catch (const std::exception& e) {
    forgetResponse();
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
  log().dbg("NFS4 operation: [%1]", number);
  if (number < kFirstOperation || number > kLastOperation) {
    return refuse(call, kIllegalOperation, OperationResult::OperationIllegal);
  }
  if (!flow.session && !needsNoSession(number)) {
    return refuse(call, number, OperationResult::OperationNotInSession);
  }
  const Operation* operation = findOperation(number);
  if (operation == nullptr) return refuse(call, number, OperationResult::NotSupported);

  const bool isFirst = flow.currentOperation == 0;
  switch (operation->rule) {
    case Rule::Any:
      break;
    case Rule::Write:
      if (!writeEnabled) return refuse(call, number, OperationResult::ReadOnlyFileSystem);
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
  return operation->execute(call);
}

}  // namespace nfslib::nfs4::procedures
