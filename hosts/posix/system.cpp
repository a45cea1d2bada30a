#include "posix/system.h"

#include <nfslib/exception.h>

#include <system_error>

#include <unistd.h>

namespace nfslib::hosts::posix {

Descriptor::~Descriptor() {
  if (m_fd >= 0) ::close(m_fd);
}

void fail(int error, const std::string& what) {
  std::string text = "Cannot " + what + ": " + std::generic_category().message(error);
  switch (error) {
    case ENOSPC:
    case EDQUOT:
      throw OutOfSpaceNfsException(text + ".", error);
    case EMFILE:
    case ENFILE:
      text += ". Raise the limit on open files, or keep fewer files open";
      break;
    case EEXIST:
      text += ". The name already exists";
      break;
    case ENOTEMPTY:
      text += ". The directory is not empty";
      break;
    default:
      break;
  }
  throw SystemNfsException(error, text + ".");
}

std::string quoted(std::string_view text) { return std::string("[").append(text).append("]"); }

std::string procName(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

}  // namespace nfslib::hosts::posix
