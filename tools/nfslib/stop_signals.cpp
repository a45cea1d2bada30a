#include "stop_signals.h"

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace nfslib::tool {

StopSignals::StopSignals() {
  sigset_t signals{};
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);  // nobody may read our output any more
  m_descriptor = signalfd(-1, &signals, SFD_CLOEXEC);
  if (m_descriptor < 0) throw std::runtime_error("Signals cannot be waited for on this system.");
}

StopSignals::~StopSignals() { close(m_descriptor); }

void StopSignals::wait() const {
  waitUnless([] { return false; });
}

void StopSignals::waitUnless(const std::function<bool()>& isOver) const {
  const int mounts = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  pollfd watched[] = {{m_descriptor, POLLIN, 0}, {mounts, POLLPRI, 0}};
  while (!isOver()) {
    const int ready = poll(watched, mounts < 0 ? 1 : 2, -1);
    if (ready < 0 && errno != EINTR) break;
    if ((watched[0].revents & POLLIN) != 0) break;
  }
  if (mounts >= 0) close(mounts);
}

}  // namespace nfslib::tool
