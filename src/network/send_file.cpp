#include "network/send_file.h"

#include <cerrno>
#include <csignal>

#ifdef __linux__
#include <sys/sendfile.h>
#endif

namespace nfslib::network {

namespace {

// sendfile has no flag against SIGPIPE, and the host's way of handling it is the host's. The signal
// goes to the thread that writes, also when part of the bytes were sent: this thread holds it back
// and drops what came.
class NoPipeSignal {
 public:
  NoPipeSignal() {
    sigemptyset(&m_pipe);
    sigaddset(&m_pipe, SIGPIPE);
    m_pendingBefore = isPending();
    pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
  }
  ~NoPipeSignal() {
    if (!m_pendingBefore && isPending()) {
      const timespec now{0, 0};
      sigtimedwait(&m_pipe, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
  }
  NoPipeSignal(const NoPipeSignal&) = delete;
  NoPipeSignal& operator=(const NoPipeSignal&) = delete;

 private:
  static bool isPending() {
    sigset_t pending{};
    return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  }

  sigset_t m_pipe{};
  sigset_t m_before{};
  bool m_pendingBefore = false;
};

}  // namespace

ssize_t sendFile([[maybe_unused]] int socket, [[maybe_unused]] int file,
                 [[maybe_unused]] std::uint64_t offset, [[maybe_unused]] std::size_t length) {
#ifdef __linux__
  ssize_t sent = 0;
  int error = 0;
  {
    const NoPipeSignal guard;
    auto from = static_cast<off_t>(offset);
    sent = ::sendfile(socket, file, &from, length);
    error = errno;
  }
  errno = error;
  return sent;
#else
  errno = ENOSYS;
  return -1;
#endif
}

}  // namespace nfslib::network
