#pragma once

#include "retried.h"

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

namespace nfslib::hosts::posix {

// An open file descriptor, closed with this object.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : m_fd(fd) {}
  Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~Descriptor();

  int get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }

 private:
  int m_fd = -1;
};

// Throws for the errno value `error`: "Cannot " + `what` + ": " + the cause. A SystemNfsException;
// for lack of space, quotas included, an OutOfSpaceNfsException.
[[noreturn]] void fail(int error, const std::string& what);

// `name` or `path` the way messages show it.
std::string quoted(std::string_view text);

// The name under which /proc has the object that `fd` has open, whatever its names are. It works
// for descriptors that were opened with O_PATH, too.
std::string procName(int fd);

}  // namespace nfslib::hosts::posix
