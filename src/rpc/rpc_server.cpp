#include "rpc/rpc_server.h"

#include "common/log.h"
#include "network/tcp_connection_handler.h"
#include "network/udp_connection_handler.h"

#include <algorithm>
#include <span>
#include <utility>

namespace nfslib::rpc {

void RpcServer::registerProgram(unsigned int number, std::unique_ptr<RpcProgram> program) {
  m_programs.insert_or_assign(number, std::move(program));
}

void RpcServer::UdpRequestReceived(network::UdpConnectionHandler& connection) {
  {
    const std::lock_guard lock(m_lock);
    ProcessRpcRequestOverUdp(connection.getStream());
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
      result = ProcessRpcRequestOverTcp(stream);
    }
    // A failed call ends its record: what is left of it is not another call.
    if (result != RpcProgramResult::Success) stream.skipInput(stream.getInputDataSize());
    connection.flush();
  }
}

RpcProgramResult RpcServer::ProcessRpcRequestOverUdp(MemoryStream& stream) {
  RpcHeader header;
  readHeader(stream, header);
  return processRequest(stream, header);
}

RpcProgramResult RpcServer::ProcessRpcRequestOverTcp(MemoryStream& stream) {
  RpcHeader header;
  readHeader(stream, header);
  const unsigned replyStart = stream.getOutputPosition();
  stream << header.recordMark;
  const RpcProgramResult result = processRequest(stream, header);
  updateHeaderWithActualResponseSize(stream, replyStart);
  return result;
}

RpcProgramResult RpcServer::processRequest(MemoryStream& stream, const RpcHeader& header) {
  const AcceptStatus status = getHeaderStatus(stream, header);
  if (!performSimpleSysAuthVerification(header)) {
    sendDenialMessage(stream, header);
    return RpcProgramResult::GarbageArguments;
  }
  sendAcceptanceMessage(stream, header, status);
  if (status != AcceptStatus::Success) return RpcProgramResult::GarbageArguments;
  return executeRpcProcedure(stream, header);
}

void RpcServer::readHeader(MemoryStream& stream, RpcHeader& header) { stream >> header; }

AcceptStatus RpcServer::getHeaderStatus(MemoryStream& stream, const RpcHeader& header) const {
  if (!performConsistencyVerification(stream, header)) return AcceptStatus::GarbageArguments;
  if (!m_programs.contains(header.program)) return AcceptStatus::ProgramUnavailable;
  return AcceptStatus::Success;
}

bool RpcServer::performConsistencyVerification(MemoryStream& stream, const RpcHeader& header) {
  if (!stream || stream.skipInput(header.verifier.length) < header.verifier.length) return false;
  stream.skipOpaqueTail(header.verifier.length);
  return true;
}

bool RpcServer::performSimpleSysAuthVerification(const RpcHeader& header) const {
  const AuthOpaque& caller = header.credentials;
  if (caller.flavor == AUTH_NONE) return true;
  if (header.program != kNfsProgram && header.program != kMountProgram) return true;
  if (caller.flavor != AUTH_SYS && header.procedure != 0) {
    log().warn("Program [%1], procedure [%2]: access denied. Not supported auth type.",
               header.program, header.procedure);
    return false;
  }
  if (caller.uid == 0) return true;
  if (m_allowedGroupId == 0) {
    log().warn(
        "Program [%1], procedure [%2]: access denied. There is no talvo group in the system.",
        header.program, header.procedure);
    return false;
  }
  const auto allowed = static_cast<unsigned>(m_allowedGroupId);
  if (caller.gid == allowed) return true;
  const std::span groups(caller.groups.data(),
                         std::min(caller.groupCount, AuthOpaque::kMaxKeptGroups));
  const bool isMember = std::any_of(groups.begin(), groups.end(),
                                    [&](unsigned group) { return group == 0 || group == allowed; });
  if (!isMember) {
    log().warn(
        "Program [%1], procedure [%2]: access denied. User does not have access to talvo group.",
        header.program, header.procedure);
  }
  return isMember;
}

void RpcServer::sendAcceptanceMessage(MemoryStream& stream, const RpcHeader& header,
                                      AcceptStatus status) {
  // The caller's own verifier when it is empty, as it is with AUTH_NONE and AUTH_SYS; a null
  // verifier in place of one with a body, which is not ours to make.
  const bool isEmpty = header.verifier.length == 0;
  const unsigned flavor = isEmpty ? header.verifier.flavor : unsigned{AUTH_NONE};
  stream << header.xid << kReply << kMessageAccepted << flavor << 0U
         << static_cast<unsigned>(status);
}

void RpcServer::sendDenialMessage(MemoryStream& stream, const RpcHeader& header) {
  stream << header.xid << kReply << kMessageDenied << kAuthError << AUTH_TOOWEAK;
}

RpcProgramResult RpcServer::executeRpcProcedure(MemoryStream& stream, const RpcHeader& header) {
  const unsigned resultsStart = stream.getOutputPosition();
  const RpcProgramResult result =
      m_programs.find(header.program)
          ->second->run(stream, {header.programVersion, header.procedure}, header.credentials);
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
