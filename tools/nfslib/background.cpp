#include "background.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nfslib::tool {

namespace {

// What the called process ends with.
int statusOf(pid_t child, int report) {
  char done = 0;
  ssize_t got = 0;
  do {
    got = read(report, &done, 1);
  } while (got < 0 && errno == EINTR);
  if (got == 1) return 0;
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

Background::Background() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("Cannot go to the background: ") + std::strerror(errno));
  }
  const pid_t child = fork();
  if (child < 0) {
    throw std::runtime_error(std::string("Cannot go to the background: ") + std::strerror(errno));
  }
  if (child != 0) {
    close(ends[1]);
    _exit(statusOf(child, ends[0]));
  }
  close(ends[0]);
  m_report = ends[1];
  setsid();
}

void Background::ready() {
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nothing, standard);
  close(nothing);
  static_cast<void>(write(m_report, "", 1));
  close(m_report);
}

}  // namespace nfslib::tool
