#include "rpc/rpc_server.h"

#include "common/log.h"
#include "common/statistics.h"
#include "network/tcp_connection_handler.h"
#include "network/udp_connection_handler.h"
#include "rpc/caller_rule.h"

#include <cstring>
#include <exception>
#include <utility>

namespace nfslib::rpc {

namespace {

std::uint32_t addressOf(const network::ConnectionHandler& connection) {
  return connection.getRemoteAddress().sin_addr.s_addr;
}

// Whether the results from there on begin with a status other than 0.
bool beginsWithFailure(const MemoryStream& stream, unsigned resultsStart) {
  unsigned status = 0;
  if (stream.getOutputDataSize() < resultsStart + sizeof status) return true;
  std::memcpy(&status, stream.getOutputBuffer().data() + resultsStart, sizeof status);
  return status != 0;  // whatever the order of its bytes
}

}  // namespace

void RpcServer::registerProgram(unsigned int number, std::unique_ptr<RpcProgram> program) {
  m_programs.insert_or_assign(number, std::move(program));
}

void RpcServer::UdpRequestReceived(network::UdpConnectionHandler& connection) {
  {
    const std::lock_guard lock(m_lock);
    ProcessRpcRequestOverUdp(connection.getStream(), addressOf(connection));
  }
  connection.flush();
}

void RpcServer::TcpRequestReceived(network::TcpConnectionHandler& connection) {
  MemoryStream& stream = connection.getStream();
  RpcProgramResult result = RpcProgramResult::Success;
  while (result == RpcProgramResult::Success && stream.getInputDataSize() != 0) {
    {
      std::unique_lock lock(m_lock, std::defer_lock);
      if (!m_parallelRequestsAllowed) lock.lock();
      result = ProcessRpcRequestOverTcp(stream, addressOf(connection));
    }
    // A failed call ends its record: what is left of it is not another call. In the modern profile
    // a record is one call in any case.
    if (result != RpcProgramResult::Success || m_profile.isModern)
      stream.skipInput(stream.getInputDataSize());
    connection.flush();
  }
}

RpcProgramResult RpcServer::ProcessRpcRequestOverUdp(MemoryStream& stream, CallerAddress caller) {
  RpcHeader header;
  readHeader(stream, header);
  return processRequest(stream, header, caller);
}

RpcProgramResult RpcServer::ProcessRpcRequestOverTcp(MemoryStream& stream, CallerAddress caller) {
  RpcHeader header;
  readHeader(stream, header);
  const unsigned replyStart = stream.getOutputPosition();
  stream << header.recordMark;
  const unsigned replyBegin = stream.getOutputPosition();
  const RpcProgramResult result = processRequest(stream, header, caller);
  if (stream.getOutputPosition() == replyBegin) {  // there is no reply
    stream.seekOutput(replyStart, SeekOrigin::Begin);
    stream.truncateOutput();
    return result;
  }
  updateHeaderWithActualResponseSize(stream, replyStart);
  return result;
}

RpcProgramResult RpcServer::processRequest(MemoryStream& stream, const RpcHeader& header,
                                           CallerAddress caller) {
  if (m_profile.isModern && refusesMessage(stream, header)) {
    statistics::count(statistics::Counter::InvalidCalls);
    return RpcProgramResult::GarbageArguments;
  }
  const AcceptStatus status = getHeaderStatus(stream, header);
  if (!callerRule(m_profile).allows(header, m_allowedGroupId)) {
    statistics::count(statistics::Counter::RefusedCalls);
    sendDenialMessage(stream, header);
    return RpcProgramResult::GarbageArguments;
  }
  if (status != AcceptStatus::Success) {
    statistics::count(statistics::Counter::InvalidCalls);
    sendAcceptanceMessage(stream, header, status);
    return RpcProgramResult::GarbageArguments;
  }
  return caller && mustRunOnce(header) ? answerOnce(stream, header, *caller)
                                       : answer(stream, header);
}

bool RpcServer::mustRunOnce(const RpcHeader& header) const {
  return m_profile.repeatsReplies &&
         m_programs.find(header.program)
             ->second->mustRunOnce({header.programVersion, header.procedure});
}

RpcProgramResult RpcServer::answerOnce(MemoryStream& stream, const RpcHeader& header,
                                       std::uint32_t caller) {
  ReplyCache::Turn turn(m_replies,
                        {.address = caller,
                         .xid = header.xid,
                         .program = header.program,
                         .version = header.programVersion,
                         .procedure = header.procedure,
                         .checksum = utility::sipHash(m_hashKey, stream.getInputBuffer())});
  statistics::countLookUp(statistics::Cache::Replies, turn.reply() != nullptr);
  if (const ReplyCache::Reply* reply = turn.reply()) {
    log().info("Call [%1] came again: program [%2], procedure [%3]. Its reply is repeated.",
               header.xid, header.program, header.procedure);
    stream.write(reply->data(), static_cast<unsigned>(reply->size()));
    return RpcProgramResult::Success;
  }
  const unsigned start = stream.getOutputPosition();
  const RpcProgramResult result = answer(stream, header);
  memory::const_buffer reply = stream.getOutputBuffer();
  turn.keep(reply += start);
  return result;
}

RpcProgramResult RpcServer::answer(MemoryStream& stream, const RpcHeader& header) {
  sendAcceptanceMessage(stream, header, AcceptStatus::Success);
  return executeRpcProcedure(stream, header);
}

// What is no call gets no answer, or two servers could answer each other for ever.
bool RpcServer::refusesMessage(MemoryStream& stream, const RpcHeader& header) {
  if (header.messageType != kCall) return true;
  if (!stream || header.rpcVersion == kRpcVersion) return false;
  stream << header.xid << kReply << kMessageDenied << kRpcMismatch << kRpcVersion << kRpcVersion;
  return true;
}

void RpcServer::readHeader(MemoryStream& stream, RpcHeader& header) { stream >> header; }

AcceptStatus RpcServer::getHeaderStatus(MemoryStream& stream, const RpcHeader& header) const {
  if (!performConsistencyVerification(stream, header)) return AcceptStatus::GarbageArguments;
  const auto program = m_programs.find(header.program);
  if (program == m_programs.end()) return AcceptStatus::ProgramUnavailable;
  if (m_profile.isModern && !program->second->versions().contain(header.programVersion)) {
    return AcceptStatus::ProgramMismatch;
  }
  return AcceptStatus::Success;
}

bool RpcServer::performConsistencyVerification(MemoryStream& stream, const RpcHeader& header) {
  if (!stream || stream.skipInput(header.verifier.length) < header.verifier.length) return false;
  stream.skipOpaqueTail(header.verifier.length);
  return true;
}

void RpcServer::sendAcceptanceMessage(MemoryStream& stream, const RpcHeader& header,
                                      AcceptStatus status) const {
  // The caller's own verifier when it is empty, as it is with AUTH_NONE and AUTH_SYS; a null
  // verifier in place of one with a body, which is not ours to make.
  const bool isEmpty = header.verifier.length == 0;
  const unsigned flavor = isEmpty ? header.verifier.flavor : unsigned{AUTH_NONE};
  stream << header.xid << kReply << kMessageAccepted << flavor << 0U
         << static_cast<unsigned>(status);
  if (status == AcceptStatus::ProgramMismatch) {
    const Versions served = m_programs.find(header.program)->second->versions();
    stream << served.lowest << served.highest;
  }
}

void RpcServer::sendDenialMessage(MemoryStream& stream, const RpcHeader& header) {
  stream << header.xid << kReply << kMessageDenied << kAuthError << AUTH_TOOWEAK;
}

RpcProgramResult RpcServer::executeRpcProcedure(MemoryStream& stream, const RpcHeader& header) {
  const unsigned resultsStart = stream.getOutputPosition();
  RpcProgram& program = *m_programs.find(header.program)->second;
  const RpcProgramParameters parameters{header.programVersion, header.procedure};
  const Counted counted = program.countedAs(parameters);
  statistics::CountedCall call(counted.row);
  RpcProgramResult result = RpcProgramResult::SystemError;
  try {
    result = program.run(stream, parameters, header.credentials);
    call.endedWith(result == RpcProgramResult::Success &&
                   !(counted.hasStatus && beginsWithFailure(stream, resultsStart)));
  } catch (std::exception& e) {
    if (!m_profile.isModern) throw;
    log().errWith(e, "Program [%1], procedure [%2] failed.", header.program, header.procedure);
  } catch (...) {  // a host may throw anything
    if (!m_profile.isModern) throw;
    log().err("Program [%1], procedure [%2] failed.", header.program, header.procedure);
  }
  updateHeaderWithProgramRC(stream, resultsStart, result);
  return result;
}

// Puts a failure in the place of the accept status, and takes back results that a program had
// begun.
void RpcServer::updateHeaderWithProgramRC(MemoryStream& stream, unsigned resultsStart,
                                          RpcProgramResult result) {
  AcceptStatus status = AcceptStatus::Success;
  switch (result) {
    case RpcProgramResult::Success:
      return;
    case RpcProgramResult::GarbageArguments:
      status = AcceptStatus::GarbageArguments;
      break;
    case RpcProgramResult::ProcedureUnavailable:
      status = AcceptStatus::ProcedureUnavailable;
      break;
    case RpcProgramResult::ProgramUnavailable:
      status = AcceptStatus::ProgramUnavailable;
      break;
    case RpcProgramResult::SystemError:
      status = AcceptStatus::SystemError;
      break;
  }
  stream.seekOutput(resultsStart - 4, SeekOrigin::Begin);
  stream << static_cast<unsigned>(status);
  stream.truncateOutput();
}

void RpcServer::updateHeaderWithActualResponseSize(MemoryStream& stream, unsigned replyStart) {
  // 0x7FFFFFFC is the last-fragment bit less the four bytes of the mark itself.
  const unsigned mark = stream.getOutputPosition() - replyStart + 0x7FFFFFFC;
  stream.seekOutput(replyStart, SeekOrigin::Begin);
  stream << mark;
  stream.seekOutput(0, SeekOrigin::End);
}

}  // namespace nfslib::rpc
