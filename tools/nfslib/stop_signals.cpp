#include "stop_signals.h"

#include <algorithm>
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
  sigaddset(&signals, SIGUSR1);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);  // nobody may read our output any more
  m_descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (m_descriptor < 0) throw std::runtime_error("Signals cannot be waited for on this system.");
}

StopSignals::~StopSignals() { close(m_descriptor); }

unsigned StopSignals::take() const {
  signalfd_siginfo signal{};
  return read(m_descriptor, &signal, sizeof signal) == sizeof signal ? signal.ssi_signo : 0;
}

bool StopSignals::hasCome() const {
  sigset_t pending{};
  sigpending(&pending);
  return sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1;
}

void StopSignals::wait(const Meanwhile& meanwhile) const {
  waitUnless([] { return false; }, meanwhile);
}

void StopSignals::waitUnless(const std::function<bool()>& isOver,
                             const Meanwhile& meanwhile) const {
  using Clock = std::chrono::steady_clock;
  const int mounts = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  pollfd watched[] = {{m_descriptor, POLLIN, 0}, {mounts, POLLPRI, 0}};
  auto next = Clock::now() + meanwhile.interval;
  const auto patience = [&] {
    if (!meanwhile.onInterval) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    return std::max(0, static_cast<int>(left.count()));
  };
  bool mayGoOn = true;
  while (mayGoOn && !isOver()) {
    const int ready = poll(watched, mounts < 0 ? 1 : 2, patience());
    if (ready < 0 && errno != EINTR) break;
    for (unsigned signal = take(); signal != 0 && mayGoOn; signal = take()) {
      mayGoOn = signal == SIGUSR1;
      if (mayGoOn) meanwhile.onUserSignal();
    }
    if (mayGoOn && meanwhile.onInterval && Clock::now() >= next) {
      meanwhile.onInterval();
      next = Clock::now() + meanwhile.interval;
    }
  }
  if (mounts >= 0) close(mounts);
}

}  // namespace nfslib::tool
