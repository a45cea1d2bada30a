#pragma once

#include "common/profile.h"
#include "common/sip_hash.h"
#include "rpc/reply_cache.h"
#include "rpc/rpc_header.h"
#include "rpc/rpc_program.h"
#include "rpc/rpc_request_processor.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace nfslib::rpc {

// The IPv4 address that a call came from, in network byte order; none for one that came through no
// socket. Replies are repeated to those that have one.
using CallerAddress = std::optional<std::uint32_t>;

// Answers RPC calls (RFC 5531): decodes the head, applies the caller rule, lets the program decode
// its arguments and encode its results, and writes the head of the reply around them.
//
// In the classic profile a message is taken for a call whatever its head says, and each program
// looks at its own version. The modern profile answers as RFC 5531 section 9 has it, and repeats
// the reply to a call that must not be done twice.
//
// Programs and settings are set before the transports start. The request lock is held while one
// call is processed, and never while its reply is sent; on TCP not at all once parallel requests
// are allowed.
class RpcServer : public RpcRequestProcessor {
 public:
  // Serves `program` under its number, in place of what was there.
  void registerProgram(unsigned int number, std::unique_ptr<RpcProgram> program);
  // The classic profile until another is set.
  void setProfile(const Profile& profile) { m_profile = profile; }
  // The Unix group whose members may use NFS and MOUNT; 0 when there is none.
  void setAllowedGroupId(int group) { m_allowedGroupId = group; }
  void allowParallelRequests() { m_parallelRequestsAllowed = true; }

  void UdpRequestReceived(network::UdpConnectionHandler& connection) override;
  void TcpRequestReceived(network::TcpConnectionHandler& connection) override;
  TransportRules transportRules() const override {
    return {.joinsFragments = m_profile.isModern, .outlivesFailures = m_profile.isModern};
  }

  // One call in `stream`, without and with a record mark before its reply. Anything but success
  // tells that the rest of the record is not to be taken for another call.
  RpcProgramResult ProcessRpcRequestOverUdp(MemoryStream& stream, CallerAddress caller = {});
  RpcProgramResult ProcessRpcRequestOverTcp(MemoryStream& stream, CallerAddress caller = {});

 private:
  static void readHeader(MemoryStream& stream, RpcHeader& header);
  AcceptStatus getHeaderStatus(MemoryStream& stream, const RpcHeader& header) const;
  static bool performConsistencyVerification(MemoryStream& stream, const RpcHeader& header);

  // Whether the message is no call of ours. The answer to that, if there is one, is written.
  static bool refusesMessage(MemoryStream& stream, const RpcHeader& header);
  // From the decoded head to the end of the reply, the same on both transports.
  RpcProgramResult processRequest(MemoryStream& stream, const RpcHeader& header,
                                  CallerAddress caller);
  bool mustRunOnce(const RpcHeader& header) const;
  void sendAcceptanceMessage(MemoryStream& stream, const RpcHeader& header,
                             AcceptStatus status) const;
  static void sendDenialMessage(MemoryStream& stream, const RpcHeader& header);
  // The same for a call that must not be done twice: its reply, from its head on, is kept.
  RpcProgramResult answerOnce(MemoryStream& stream, const RpcHeader& header, std::uint32_t caller);
  RpcProgramResult answer(MemoryStream& stream, const RpcHeader& header);
  // Counts the call.
  RpcProgramResult executeRpcProcedure(MemoryStream& stream, const RpcHeader& header);
  static void updateHeaderWithProgramRC(MemoryStream& stream, unsigned resultsStart,
                                        RpcProgramResult result);
  static void updateHeaderWithActualResponseSize(MemoryStream& stream, unsigned replyStart);

  Profile m_profile;
  std::map<unsigned int, std::unique_ptr<RpcProgram>> m_programs;
  std::mutex m_lock;  // one call at a time; taken before every lock of the programs
  const utility::HashKey m_hashKey = utility::randomHashKey();
  ReplyCache m_replies;
  bool m_parallelRequestsAllowed = false;
  int m_allowedGroupId = 0;
};

}  // namespace nfslib::rpc
