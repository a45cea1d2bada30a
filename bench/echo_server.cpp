// The ceiling of a server with one thread a connection, one receive and one send a call: it answers
// NFS calls of version 3 and 4.1 with messages of the right shape and size, and knows nothing of
// exports, sessions, handles or names. READ and WRITE do to one given file what a server has to do:
// one pread or pwrite.

#include "wire.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace bench {
namespace {

constexpr std::size_t kBufferSize = kMaxTransfer + kMaxHeaders;
constexpr std::array<char, 16> kHandle{};

struct File {
  int descriptor = -1;
  std::uint64_t size = 0;
};

int check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

void setOption(int socket, int level, int option, int value) {
  check(setsockopt(socket, level, option, &value, sizeof value), "setsockopt");
}

File openFile(const std::string& path) {
  File file{open(path.c_str(), O_RDWR | O_CLOEXEC)};
  if (file.descriptor < 0) {
    file.descriptor = check(open(path.c_str(), O_RDONLY | O_CLOEXEC), path.c_str());
  }
  struct stat status = {};
  check(fstat(file.descriptor, &status), path.c_str());
  file.size = static_cast<std::uint64_t>(status.st_size);
  return file;
}

class Connection {
 public:
  Connection(int socket, File file) : m_socket(socket), m_file(file) {}

  void serve() {
    while (receiveCall()) {
      m_out.clear();
      const std::size_t start = m_out.beginRecord();
      answer(Decoder({m_input.data() + kMarkSize, m_callSize - kMarkSize}));
      m_out.endRecord(start);
      if (!sendReply()) break;
      std::copy(m_input.begin() + static_cast<std::ptrdiff_t>(m_callSize),
                m_input.begin() + static_cast<std::ptrdiff_t>(m_received), m_input.begin());
      m_received -= m_callSize;
    }
  }

 private:
  // The calls of a run are equally long, so asking for as much as the last one had takes the next
  // whole call, and nothing of the one behind it, in a single receive. Other lengths take another.
  bool receiveCall() {
    std::size_t wanted = std::max(m_callSize, kMarkSize);
    for (;;) {
      if (m_received >= kMarkSize) {
        m_callSize = kMarkSize + (fromWire<std::uint32_t>(m_input.data()) & ~kLastFragment);
        if (m_received >= m_callSize) return true;
        if (m_callSize > kBufferSize) return false;
        wanted = m_callSize;
      }
      const ssize_t n = recv(m_socket, m_input.data() + m_received, wanted - m_received, 0);
      if (n <= 0) return false;
      m_received += static_cast<std::size_t>(n);
    }
  }

  // Of the attributes only the size tells something: the client asks how far it can read.
  void attributes() {
    m_out.zeros(kSizeInAttributes).hyper(m_file.size);
    m_out.zeros(kAttributesSize - kSizeInAttributes - 8);
  }
  void optionalAttributes() {
    m_out.word(1);
    attributes();
  }

  void answer(Decoder call) {
    const std::uint32_t xid = call.word();
    call.take(12);  // CALL, RPC version, program
    const std::uint32_t version = call.word();
    const auto procedure = static_cast<Procedure>(call.word());
    for (int i = 0; i < 2; ++i) {  // credentials and verifier
      call.word();
      call.opaque();
    }
    m_out.word(xid).word(1).zeros(16);  // REPLY, accepted, null verifier, SUCCESS
    if (procedure == Procedure::Null) return;
    if (version == 4) return answerCompound(call);
    call.opaque();  // the handle
    switch (procedure) {
      case Procedure::GetAttr:
        m_out.word(0);
        attributes();
        return;
      case Procedure::Lookup:
        m_out.word(0).opaque({kHandle.data(), kHandle.size()});
        optionalAttributes();
        optionalAttributes();
        return;
      case Procedure::Read: {
        const std::uint64_t offset = call.hyper();
        const std::uint32_t count = call.word();
        m_out.word(0);
        optionalAttributes();
        m_out.word(count).word(0);
        return readFile(offset, count);
      }
      case Procedure::Write: {
        const auto offset = static_cast<off_t>(call.hyper());
        call.word();
        const std::uint32_t stable = call.word();
        const auto data = call.opaque();
        if (pwrite(m_file.descriptor, data.data(), data.size(), offset) !=
            static_cast<ssize_t>(data.size())) {
          throw std::runtime_error("the file cannot be written; was it given with --file?");
        }
        m_out.word(0).word(1).zeros(24);
        optionalAttributes();
        m_out.word(static_cast<std::uint32_t>(data.size())).word(stable).zeros(8);
        return;
      }
      case Procedure::Null:
      case Procedure::ReadDirPlus:
        break;
    }
    throw std::runtime_error("a procedure that has no echo");
  }

  // SEQUENCE, PUTFH, and GETATTR or READ.
  void answerCompound(Decoder call) {
    call.opaque();  // the tag
    call.take(8);   // minor version, number of operations
    m_out.word(0).word(0).word(3);
    call.word();
    const auto session = call.take(kSessionIdSize);
    done(Operation::Sequence).bytes(session).bytes(call.take(8)).zeros(12);
    call.take(8 + 4);
    call.opaque();
    done(Operation::PutFh);
    const auto operation = static_cast<Operation>(call.word());
    done(operation);
    if (operation == Operation::GetAttr) {
      m_out.word(2).word(kAttributes4[0]).word(kAttributes4[1]);
      m_out.word(kAttributes4Size).zeros(kSizeInAttributes4).hyper(m_file.size);
      m_out.zeros(kAttributes4Size - kSizeInAttributes4 - 8);
    } else if (operation == Operation::Read) {
      call.take(kStateIdSize);
      const std::uint64_t offset = call.hyper();
      m_out.word(0);
      readFile(offset, call.word());
    } else {
      throw std::runtime_error("an operation that has no echo");
    }
  }

  Encoder& done(Operation operation) {
    return m_out.word(static_cast<std::uint32_t>(operation)).word(0);
  }

  void readFile(std::uint64_t offset, std::uint32_t count) {
    m_out.word(count);
    std::byte* const data = m_out.space(padded(count));
    if (pread(m_file.descriptor, data, count, static_cast<off_t>(offset)) !=
        static_cast<ssize_t>(count)) {
      throw std::runtime_error("READ past the end of the file");
    }
  }

  bool sendReply() {
    for (auto rest = m_out.written(); !rest.empty();) {
      const ssize_t n = send(m_socket, rest.data(), rest.size(), MSG_NOSIGNAL);
      if (n <= 0) return false;
      rest = rest.subspan(static_cast<std::size_t>(n));
    }
    return true;
  }

  const int m_socket;
  const File m_file;
  std::vector<std::byte> m_input = std::vector<std::byte>(kBufferSize);
  std::size_t m_received = 0;  // bytes in m_input
  std::size_t m_callSize = 0;  // with its mark; of the call being answered, then of the last one
  std::vector<std::byte> m_output = std::vector<std::byte>(kBufferSize);
  Encoder m_out{m_output};
};

void serveConnection(int socket, File file) {
  try {
    Connection(socket, file).serve();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "echo_server: %s\n", e.what());
  }
  close(socket);
}

void run(unsigned short port, const std::string& path) {
  const File file = path.empty() ? File{} : openFile(path);
  const int listener = check(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  setOption(listener, SOL_SOCKET, SO_REUSEADDR, 1);
  setOption(listener, SOL_SOCKET, SO_SNDBUF, 1 << 20);
  setOption(listener, SOL_SOCKET, SO_RCVBUF, 1 << 20);
  setOption(listener, IPPROTO_TCP, TCP_NODELAY, 1);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  check(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  check(listen(listener, 128), "listen");
  std::puts("ready");
  std::fflush(stdout);
  for (;;) {
    const int connection = check(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept");
    std::thread(serveConnection, connection, file).detach();
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  CLI::App app("Answers NFS calls with empty messages of the right size.");
  unsigned short port = 0;
  std::string file;
  app.add_option("--port", port, "TCP port on 127.0.0.1")->required();
  app.add_option("--file", file, "File that READ and WRITE go to");
  CLI11_PARSE(app, argc, argv);
  try {
    bench::run(port, file);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "echo_server: %s\n", e.what());
    return 1;
  }
}
