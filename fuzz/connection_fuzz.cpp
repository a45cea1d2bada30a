// Any bytes on a TCP connection: record marks, call heads, several calls in a record, ends in the
// middle. Whatever comes back is whole records.

#include "check.h"
#include "network/socket_descriptor.h"
#include "network/tcp_connection_handler.h"
#include "served_tree.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

#include <sys/socket.h>

using namespace nfslib;

namespace {

void sendAll(int socket, const std::vector<std::byte>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const auto sent = send(socket, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (sent <= 0) return;  // the connection was ended early
    done += static_cast<std::size_t>(sent);
  }
}

std::vector<std::byte> receiveAll(int socket) {
  std::vector<std::byte> bytes;
  std::array<std::byte, 65536> piece{};
  for (;;) {
    const auto received = recv(socket, piece.data(), piece.size(), 0);
    if (received <= 0) return bytes;
    bytes.insert(bytes.end(), piece.begin(), piece.begin() + received);
  }
}

void checkWholeRecords(const std::vector<std::byte>& bytes) {
  constexpr std::size_t kMark = 4;
  std::size_t position = 0;
  while (position < bytes.size()) {
    FUZZ_CHECK(bytes.size() - position >= kMark);
    unsigned mark = 0;
    MemoryStream::copyBytesWithCorrectOrder(bytes.data() + position,
                                            reinterpret_cast<std::byte*>(&mark), sizeof mark);
    FUZZ_CHECK((mark & 0x80000000U) != 0);
    position += kMark + (mark & 0x7FFFFFFFU);
    FUZZ_CHECK(position <= bytes.size());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ServedTree tree;
  const auto input = tree.withHandles(data, size);

  std::array<int, 2> ends{};
  FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0);
  const network::SocketDescriptor peer(ends[0]);
  network::TcpConnectionHandler handler(network::SocketDescriptor(ends[1]), tree.server(), {});

  std::vector<std::byte> output;
  std::thread client([&] {
    sendAll(peer, input);
    ::shutdown(peer, SHUT_WR);
    output = receiveAll(peer);
  });
  const bool stop = false;
  handler.handleConnection(stop);
  client.join();
  FUZZ_CHECK(!handler.isActive());
  checkWholeRecords(output);
  return 0;
}
