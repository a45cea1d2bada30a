#pragma once

namespace nfslib::network {

// Owns one file descriptor; -1 when empty.
class SocketDescriptor {
 public:
  SocketDescriptor() = default;
  explicit SocketDescriptor(int descriptor) : m_descriptor(descriptor) {}
  ~SocketDescriptor() { close(); }
  SocketDescriptor(SocketDescriptor&& other) noexcept { swap(other); }
  SocketDescriptor& operator=(SocketDescriptor&& other) noexcept {
    swap(other);
    return *this;
  }
  SocketDescriptor(const SocketDescriptor&) = delete;
  SocketDescriptor& operator=(const SocketDescriptor&) = delete;

  bool valid() const { return m_descriptor >= 0; }
  void close();
  // Ends every blocked call on the socket, in any thread, and leaves the descriptor open: closing
  // it would not wake them, and would free its number while they still use it.
  void shutdown() const;

  operator int() const {
    return m_descriptor;
  }  // NOLINT(google-explicit-constructor): for system calls

 private:
  void swap(SocketDescriptor& other) noexcept;

  int m_descriptor = -1;
};

}  // namespace nfslib::network
